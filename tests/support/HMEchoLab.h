// A private network for ICMP tests and benchmarks.
//
// enterPrivateNetwork() moves this process (its main thread, and every thread and child it
// starts afterwards) into a network namespace of its own, with loopback up and ICMP
// datagram sockets open to every group: nothing the lab does touches the machine's own
// links, routes or sysctls. addHost() then starts an hmechoresponder in a namespace of its
// own, joined to ours by a veth pair, that answers echo requests after a set delay; the
// kernels here have no netem, so the delay is made in user space. addBlackHole() gives an
// address whose packets leave on a link where nobody listens: sends succeed and nothing
// ever comes back. Responders die with the lab (or with this process), and their
// namespaces and links with them; the lab's own namespace ends with the process.
#pragma once

#include <QString>
#include <QStringList>
#include <memory>
#include <vector>

class QProcess;

// Skip the current test function, with the reason, where the lab cannot be had. (QSKIP
// must run in the test function itself, hence macros.)
#define HM_REQUIRE_PRIVATE_NETWORK()                                                               \
    do {                                                                                           \
        QString hmWhyNot;                                                                          \
        if (!HMEchoLab::enterPrivateNetwork(&hmWhyNot))                                            \
            QSKIP(qPrintable(QStringLiteral("needs root for a private network namespace: ") +      \
                             hmWhyNot));                                                           \
    } while (false)
// Where the lab cannot be had, ICMP sockets may still be open to this user.
#define HM_REQUIRE_PING_SOCKET()                                                                   \
    do {                                                                                           \
        QString hmWhyNot;                                                                          \
        HMEchoLab::enterPrivateNetwork(&hmWhyNot);                                                 \
        if (!HMEchoLab::canOpenPingSocket())                                                       \
            QSKIP(qPrintable(QStringLiteral("ICMP sockets are closed to this user "                \
                                            "(net.ipv4.ping_group_range) and no private "          \
                                            "namespace can open them: ") +                         \
                             hmWhyNot));                                                           \
    } while (false)

class HMEchoLab
{
public:
    // Needs root (CAP_SYS_ADMIN and CAP_NET_ADMIN). Done once per process; later calls
    // give the first call's result. Call it from the main thread before the code under
    // test opens sockets.
    static bool enterPrivateNetwork(QString *why = nullptr);
    // Whether this process may open an unprivileged ICMP socket right now.
    static bool canOpenPingSocket();

    HMEchoLab();
    ~HMEchoLab();
    HMEchoLab(const HMEchoLab &) = delete;
    HMEchoLab &operator=(const HMEchoLab &) = delete;

    // A host that answers after `delayMs` (-1: never), with a decoy reply before each real
    // one when asked. Returns its IPv4 address once the link carries traffic, or an empty
    // string and `error`.
    QString addHost(int delayMs, bool decoy = false, QString *error = nullptr);
    // Several hosts at once, one per delay, in that order; all or none.
    QStringList addHosts(const QList<int> &delaysMs, bool decoy = false, QString *error = nullptr);
    // A fresh address on the black-holed route.
    QString addBlackHole(QString *error = nullptr);
    // An address on a "blackhole" route: the kernel refuses every send to it at once.
    QString addUnroutable(QString *error = nullptr);

private:
    QString startHost(int delayMs, bool decoy, QString *error);
    // A new link carries nothing until the kernel has activated it, which can take a good
    // part of a second: ping every new host until it answers, all of them together.
    bool warmUp(const QStringList &addresses, QString *error);

    std::vector<std::unique_ptr<QProcess>> m_responders;
};
