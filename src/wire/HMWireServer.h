// The helper's end of the socket: the socket-activated listener, accepting with a time-out,
// the peer's credentials, and a frame reader that does not trust its client.
//
// Unlike read_data (the application's reader), read_frame refuses an announced length of 0
// or above a cap before allocating anything, and gives up on a client that stops sending
// before an overall deadline, so one stalled or hostile client cannot hold the root helper.
#pragma once

#include "HMWireError.h"

#include <QByteArray>
#include <cstdint>
#include <optional>
#include <sys/types.h>

// The backlog the listener is put into listen() with.
inline constexpr int kHMWireListenBacklog = 5;
// How long get_connection_fd waits for a client.
inline constexpr int kHMWireAcceptTimeoutMs = 10000;

// Takes the socket passed by the service manager (sd_listen_fds): the one named
// "MasterSocket" when names are passed, else the first; then listen() with a backlog of 5.
// The LISTEN_* variables are removed from the environment so that nothing the helper
// starts inherits them. Returns -1 on any failure (none passed, not a Unix stream socket,
// listen() failed).
int get_listener_fd();

// Waits up to 10,000 ms (or `timeoutMs`) for a client and accepts it (close-on-exec).
// Returns the connection, -1 on time-out, -2 on failure.
int get_connection_fd(int listener, int timeoutMs = kHMWireAcceptTimeoutMs);

struct HMWirePeer
{
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The credentials the kernel recorded for the peer at connect time (SO_PEERCRED).
std::optional<HMWirePeer> peer_credentials(int fd, HMWireMaybeError *error);

// Reads one frame whose announced length must be 1..maxLength, all of it within
// `deadlineMs` of the call. Errors: FrameEmpty, FrameTooLarge (both before any allocation),
// FrameTruncated, FrameDeadline (domain "wire"), or a "sockets" error for a failed call.
std::optional<QByteArray> read_frame(int fd, std::uint64_t maxLength, int deadlineMs,
                                     HMWireMaybeError *error);
