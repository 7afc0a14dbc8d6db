#include "HMSignalWatcher.h"

#include <QSocketNotifier>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {
int g_signalFds[2] = {-1, -1};

void handleSignal(int signalNumber)
{
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const ssize_t ignored = ::write(g_signalFds[0], &byte, 1);
}
} // namespace

HMSignalWatcher::HMSignalWatcher(QObject *parent) : QObject(parent) {}

HMSignalWatcher::~HMSignalWatcher() = default;

bool HMSignalWatcher::watchTerminationSignals()
{
    if (g_signalFds[0] < 0 &&
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signalFds) != 0) {
        return false;
    }
    m_notifier = new QSocketNotifier(g_signalFds[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &HMSignalWatcher::readSignal);

    struct sigaction action
    {
    };
    action.sa_handler = handleSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGTERM, &action, nullptr) == 0 &&
           ::sigaction(SIGINT, &action, nullptr) == 0;
}

void HMSignalWatcher::readSignal()
{
    unsigned char byte = 0;
    if (::read(g_signalFds[1], &byte, 1) == 1) {
        Q_EMIT quitRequested(byte);
    }
}
