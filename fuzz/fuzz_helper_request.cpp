// The helper's first contact with a client: the bytes of one connection go through the
// frame reader (length cap, deadline, short reads) and the CBOR decoder with the helper's
// nesting limit. Either may refuse; neither may crash, hang or read past the frame.
#include "HMWireCodec.h"
#include "HMWireConstants.h"
#include "HMWireServer.h"

#include <QCborMap>

#include <cstdint>
#include <sys/socket.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return 0;
    }
    // Inputs stay far below the socket buffer, so one write delivers them all.
    if (size > 0 && ::write(fds[0], data, size) != static_cast<ssize_t>(size)) {
        ::close(fds[0]);
        ::close(fds[1]);
        return 0;
    }
    ::shutdown(fds[0], SHUT_WR);
    HMWireMaybeError error;
    const std::optional<QByteArray> frame = read_frame(fds[1], HMWire::kMaxFrameLength, 50, &error);
    if (frame) {
        // The helper's own limit (HMHelperServer::kMaxNesting).
        decode_dictionary(*frame, &error, 4);
    }
    ::close(fds[0]);
    ::close(fds[1]);
    return 0;
}
