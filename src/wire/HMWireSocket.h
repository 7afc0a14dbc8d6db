// The socket calls both ends of the helper protocol share.
//
// One request per connection, one frame each way: an unsigned 64-bit payload length in the
// host's native byte order, then the payload. These functions are deliberately plain (file
// descriptors in, error values out) so the root helper can use them without the core
// library. The application's reader has no overall time-out on purpose: a helper that is
// slow (starting OpenVPN can take seconds) must not be given up on half-way. The helper
// reads with read_frame (HMWireServer.h) instead, which has a deadline and a size cap.
#pragma once

#include "HMWireError.h"

#include <QByteArray>
#include <QString>
#include <cstddef>
#include <optional>

// The socket address keeps at most this many bytes of the path; longer paths are cut.
inline constexpr std::size_t kHMWirePathLimit = 104;
// The address length handed to connect(): the family field plus the path limit.
inline constexpr unsigned kHMWireAddressLength = 106;

// Connects a stream socket to the Unix-domain path. Returns the descriptor (close-on-exec),
// or -1 with "socket() failed: %s" / "socket connect() failed: %s" in `error`; a descriptor
// whose connect failed is closed before returning.
int unix_socket(const QString &path, HMWireMaybeError *error);

// Writes the 8-byte length, then the payload in one write. A short or failed payload write
// is "socket connect() failed: tried to write %zd, but wrote %zd" (domain "sockets", code
// 42): the wording is historical and log readers search for it, so it stays. Never raises
// SIGPIPE.
HMWireMaybeError write_data(int fd, const QByteArray &data);

// Reads one frame. Failures carry domain "sockets" and the system error number:
// "read() size failed: %s" while reading the length, "read() reply failed: %s" after it. A
// peer that closes before the frame is complete reports ECONNRESET rather than a success
// with a partial buffer. Memory grows with the bytes that actually arrive, so a bogus
// length alone does not allocate.
std::optional<QByteArray> read_data(int fd, HMWireMaybeError *error);

// Reads exactly `length` bytes into `buffer`, waiting for readability in 1,000 ms polls
// with no overall time-out. Returns 0 when complete; the system error number when poll()
// or read() fails; and on a zero-byte read (the peer closed) the current system error
// number, which is usually 0 — pass `received` to tell that case from completion.
int read_bytes(std::size_t length, int fd, char *buffer, std::size_t *received = nullptr);
