// The application's client of the root helper hmwispd, and the launch configuration that
// the helper's start requests carry.
//
// One request per connection to the helper's Unix socket: a framed CBOR dictionary out,
// one back (the wire library). Every exchange runs on the serial command queue
// "com.hollowmere.daemon.command", so at most one is in flight and later requests wait
// behind it in order. Reads have no overall time-out on purpose: starting OpenVPN can take
// the helper many seconds, and a helper that accepts but never answers holds the queue
// (never the main thread) until it closes the connection. Completions always run on the
// main thread, and only after the exchange's socket is closed, whatever the outcome.
//
// The queue is created by createCommandQueue() (the first step of the helper set-up at
// start-up); using any request before that is a programming error and throws the
// assertion "Daemon should be initialized prior to use".
//
// Collaborators: the preference store ("vpnForceTCP", "vpnConfigFile", "debugWisproute"),
// the account manager (vpnServers), the routing manager (isSupported, the domain files;
// this manager also installs itself as that manager's DNS-proxy restarter) and, through
// setTunnelInfo(), the VPN manager's connectedIp and tapAdapter. The socket path and the
// directories are fixed in production; tests construct an instance with Paths of their own.
#pragma once

#include "HMError.h"

#include <QObject>
#include <QStringList>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <mutex>

class HMAccountManager;
class HMPreferenceStore;
class HMSerialQueue;
class HMWisprouteManager;

class HMDaemonManager : public QObject
{
    Q_OBJECT

public:
    // The reply is empty when no reply was read (transport errors).
    using ReplyCompletion =
        std::function<void(const QVariantMap &reply, const HMMaybeError &error)>;
    using TextSource = std::function<QString()>;

    struct Paths
    {
        QString socketPath;          // the helper's socket
        QString executableDirectory; // where "openvpn" and "wisproute" lie
        QString resourceDirectory;   // OpenVPN's "--cd" and the DNS proxy's "-s"
        QStringList unitDirectories; // where the installed helper's service unit is looked up

        static Paths production();
    };

    static const QString kAssertionText; // "Daemon should be initialized prior to use"

    static HMDaemonManager &instance();

    HMDaemonManager(HMPreferenceStore &store, HMAccountManager *account,
                    HMWisprouteManager *routing, const Paths &paths = Paths::production(),
                    QObject *parent = nullptr);
    ~HMDaemonManager() override;

    void createCommandQueue();
    bool hasCommandQueue() const { return m_queue != nullptr; }

    // The VPN manager's connectedIp and tapAdapter; until set they read as empty.
    void setTunnelInfo(TextSource connectedIp, TextSource tapAdapter);

    // The single transport operation. Synchronous mode blocks the caller until the exchange
    // is over; the completion (optional) still arrives later on the main thread.
    void executeRequest(const QVariantMap &request, bool async, ReplyCompletion completion);

    // Requests. Status-checked completions get (reply, error) with the helper's "error"
    // text when its "status" is not "ok".
    void startVPN(ReplyCompletion completion);
    // The raw reply: a "status" "error" answer is NOT an error here (callers stop anyway).
    void stopVPN(ReplyCompletion completion);
    // Synchronous, no completion: for the moments when the application must not go on
    // before OpenVPN is down.
    void stopVPN();
    // At quit: writes "stopVPN" and "stopDNSProxy" on the calling thread, past the command
    // queue (an exchange may be waiting there), and does not wait for the answers; each
    // write gives up after timeoutMs. False when a request could not be written.
    bool writeStopRequests(int timeoutMs);
    // On success the reply carries "vpnLog", "daemonLog" and "dnsLog".
    void getLogs(ReplyCompletion completion);
    // The tap name arrives as OpenVPN logged it (line end included) and is trimmed here.
    void startDNSProxyWithTap(const QString &tap, int wisprouteMode, ReplyCompletion completion);
    void stopDNSProxy(ReplyCompletion completion);
    void checkDNSPortOpen(ReplyCompletion completion);
    // Asks a running old helper to exit ("suicide", synchronous) when its program still
    // exists on disk; errors are only logged.
    void removeOldDaemonIfPresent(const QString &label);
    // The installed helper's program: the first word of ExecStart= in the service unit
    // "<label>.service"; empty when there is no such unit.
    QString getInstalledDaemonPath(const QString &label) const;

    // Launch configuration.
    QVariantMap getDaemonConfig() const;
    QStringList getVPNConfig() const;
    QStringList getDNSProxyConfigWithWisproute(int mode, const QString &tap) const;

private:
    QStringList getVPNServers() const;
    void restartDnsProxy(int mode, std::function<void(const HMMaybeError &)> completion);
    void exchange(const QVariantMap &request, const ReplyCompletion &completion);
    static ReplyCompletion statusChecked(ReplyCompletion completion);

    HMPreferenceStore &m_store;
    HMAccountManager *m_account;
    HMWisprouteManager *m_routing;
    Paths m_paths;
    TextSource m_connectedIp;
    TextSource m_tapAdapter;
    std::unique_ptr<HMSerialQueue> m_queue;
    // The connection of the exchange in flight, so destruction can wake a blocked read.
    std::mutex m_inFlightMutex;
    int m_inFlightFd = -1;
};
