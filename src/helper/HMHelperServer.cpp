#include "HMHelperServer.h"

#include "HMHelperLog.h"
#include "HMHelperService.h"
#include "HMPeerCredentials.h"
#include "HMWireCodec.h"
#include "HMWireConstants.h"
#include "HMWireServer.h"
#include "HMWireSocket.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

HMHelperServer::HMHelperServer(const HMHelperConfig &config, HMHelperLog &log,
                               HMHelperService &service)
    : m_config(config), m_log(log), m_service(service)
{}

void HMHelperServer::reapChildren()
{
    int status = 0;
    while (::waitpid(-1, &status, WNOHANG) > 0) {
    }
}

int HMHelperServer::run(int listener)
{
    for (;;) {
        const int connection = get_connection_fd(listener);
        if (connection == -1) {
            reapChildren();
            continue;
        }
        if (connection < 0) {
            m_log.write(QStringLiteral("cannot accept connections any more; exiting"));
            return 1;
        }
        const bool exitNow = serve(connection);
        reapChildren();
        if (exitNow) {
            return 0;
        }
    }
}

void HMHelperServer::reply(int connection, const QCborMap &message)
{
    // A failed reply is the client's loss only; the helper carries on with the
    // next one.
    write_data(connection, encode_dictionary(message));
}

bool HMHelperServer::serve(int connection)
{
    ::fcntl(connection, F_SETFD, FD_CLOEXEC);
    // A client that stops reading its reply must not hold the helper either.
    struct timeval timeout
    {
        m_config.clientTimeoutMs / 1000, (m_config.clientTimeoutMs % 1000) * 1000
    };
    ::setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));

    QString why;
    const std::optional<HMPeerCredentials> peer = HMPeerCredentials::fromSocket(connection, &why);
    if (!peer) {
        m_log.write(QStringLiteral("refused a connection: %1").arg(why));
        reply(connection, HMHelperService::errorReply(why));
        ::close(connection);
        return false;
    }
    if (!peer->isAllowed(m_config.allowedGroup)) {
        reply(connection,
              m_service.refuse(
                  *peer, QString(),
                  QStringLiteral("only root and members of the group '%1' may use the helper")
                      .arg(m_config.allowedGroup)));
        ::close(connection);
        return false;
    }

    HMWireMaybeError error;
    const std::optional<QByteArray> frame =
        read_frame(connection, HMWire::kMaxFrameLength, m_config.clientTimeoutMs, &error);
    std::optional<QCborMap> request;
    if (frame) {
        request = decode_dictionary(*frame, &error, kMaxNesting);
    }
    if (!request) {
        reply(connection,
              m_service.refuse(*peer, QString(),
                               error ? error->description : QStringLiteral("unreadable request")));
        ::close(connection);
        return false;
    }
    const HMHelperService::Outcome outcome = m_service.handle(*request, *peer);
    reply(connection, outcome.reply);
    ::close(connection);
    return outcome.exitAfterReply;
}
