#include "HMDaemonManager.h"

#include "HMAccountManager.h"
#include "HMAppPaths.h"
#include "HMDispatch.h"
#include "HMException.h"
#include "HMLog.h"
#include "HMPreferenceStore.h"
#include "HMSerialQueue.h"
#include "HMWireCodec.h"
#include "HMWireConstants.h"
#include "HMWireSocket.h"
#include "HMWisprouteManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

const QString HMDaemonManager::kAssertionText =
    QStringLiteral("Daemon should be initialized prior to use");

namespace {

const QString kStatusKey = QStringLiteral("status");
const QString kErrorKey = QStringLiteral("error");
const QString kActionKey = QStringLiteral("action");
const QString kParamsKey = QStringLiteral("params");
const QString kDaemonKey = QStringLiteral("daemon");

HMError errorFromWire(const HMWireError &error)
{
    return HMError(error.domain, error.code, error.description);
}

// The helper's failure as an error value; its "error" text is what users get to see.
HMError errorFromReply(const QVariantMap &reply)
{
    const QVariant text = reply.value(kErrorKey);
    if (text.typeId() == QMetaType::QString && !text.toString().isEmpty()) {
        return HMError::errorWithDescription(text.toString());
    }
    return HMError::errorWithDescription(
        QStringLiteral("The helper answered \"%1\" without saying why")
            .arg(reply.value(kStatusKey).toString()));
}

QVariantMap request(const QString &action)
{
    return QVariantMap{{kActionKey, action}};
}

// ExecStart= may carry prefixes that change how systemd runs the command, and quotes.
QString programOfExecStart(QString command)
{
    command = command.trimmed();
    while (!command.isEmpty() && QStringLiteral("-@:+!").contains(command.front())) {
        command.remove(0, 1);
    }
    if (command.startsWith(QLatin1Char('"'))) {
        const qsizetype end = command.indexOf(QLatin1Char('"'), 1);
        return end > 0 ? command.mid(1, end - 1) : QString();
    }
    return command.section(QLatin1Char(' '), 0, 0, QString::SectionSkipEmpty);
}

} // namespace

HMDaemonManager::Paths HMDaemonManager::Paths::production()
{
    Paths paths;
    paths.socketPath = QString::fromLatin1(HMWire::kSocketPath);
    paths.executableDirectory = app_executable_directory();
    paths.resourceDirectory = app_resource_directory();
    paths.unitDirectories = {
        QStringLiteral("/etc/systemd/system"), QStringLiteral("/run/systemd/system"),
        QStringLiteral("/usr/local/lib/systemd/system"), QStringLiteral("/lib/systemd/system"),
        QStringLiteral("/usr/lib/systemd/system")};
    // A helper of one's own (the demo's lab, a development machine) listens elsewhere and
    // runs OpenVPN in its own resource folder. Nothing is trusted by this: the helper still
    // checks the caller and refuses any resource folder but its own.
    const QString socket = qEnvironmentVariable("HOLLOWMERE_HELPER_SOCKET");
    const QString resources = qEnvironmentVariable("HOLLOWMERE_HELPER_RESOURCES");
    if (!socket.isEmpty()) {
        paths.socketPath = socket;
    }
    if (!resources.isEmpty()) {
        paths.resourceDirectory = resources;
    }
    return paths;
}

HMDaemonManager &HMDaemonManager::instance()
{
    // Never destroyed: at exit an exchange may still be blocked on a silent helper, and
    // nothing must wait for it.
    static HMDaemonManager *shared =
        new HMDaemonManager(HMPreferenceStore::instance(), &HMAccountManager::instance(),
                            &HMWisprouteManager::instance());
    return *shared;
}

HMDaemonManager::HMDaemonManager(HMPreferenceStore &store, HMAccountManager *account,
                                 HMWisprouteManager *routing, const Paths &paths, QObject *parent)
    : QObject(parent), m_store(store), m_account(account), m_routing(routing), m_paths(paths)
{
    if (m_routing) {
        m_routing->setDnsProxyRestarter(
            [this](int mode, HMWisprouteManager::Completion completion) {
                restartDnsProxy(mode, std::move(completion));
            });
    }
}

HMDaemonManager::~HMDaemonManager()
{
    if (m_routing) {
        m_routing->setDnsProxyRestarter(nullptr);
    }
    {
        // Wake an exchange blocked on a helper that never answers; it ends with an error.
        std::lock_guard<std::mutex> lock(m_inFlightMutex);
        if (m_inFlightFd >= 0) {
            ::shutdown(m_inFlightFd, SHUT_RDWR);
        }
    }
    m_queue.reset();
}

void HMDaemonManager::createCommandQueue()
{
    if (!m_queue) {
        m_queue = std::make_unique<HMSerialQueue>(QString::fromLatin1(HMWire::kCommandQueueName));
    }
}

void HMDaemonManager::setTunnelInfo(TextSource connectedIp, TextSource tapAdapter)
{
    m_connectedIp = std::move(connectedIp);
    m_tapAdapter = std::move(tapAdapter);
}

void HMDaemonManager::executeRequest(const QVariantMap &request, bool async,
                                     ReplyCompletion completion)
{
    hm_assert(m_queue != nullptr, kAssertionText);
    auto work = [this, request, completion = std::move(completion)] {
        exchange(request, completion);
    };
    if (async) {
        m_queue->async(std::move(work));
    } else {
        m_queue->sync(std::move(work));
    }
}

// Runs on the command queue.
void HMDaemonManager::exchange(const QVariantMap &request, const ReplyCompletion &completion)
{
    QVariantMap reply;
    HMMaybeError error;
    HMWireMaybeError wireError;
    const int fd = unix_socket(m_paths.socketPath, &wireError);
    if (fd >= 0) {
        {
            std::lock_guard<std::mutex> lock(m_inFlightMutex);
            m_inFlightFd = fd;
        }
        wireError = write_data(fd, encode_dictionary(request));
        if (!wireError) {
            if (const std::optional<QByteArray> data = read_data(fd, &wireError)) {
                reply = decode_variant_dictionary(*data, &wireError).value_or(QVariantMap());
            }
        }
        std::lock_guard<std::mutex> lock(m_inFlightMutex);
        m_inFlightFd = -1;
        ::close(fd);
    }
    if (wireError) {
        error = errorFromWire(*wireError);
        HMLogError(QStringLiteral("error: %1").arg(error->description()));
        reply.clear();
    }
    // Only once the socket is closed: whoever hears back holds no connection to the helper.
    if (completion) {
        dispatch_to_main([completion, reply, error] { completion(reply, error); });
    }
}

HMDaemonManager::ReplyCompletion HMDaemonManager::statusChecked(ReplyCompletion completion)
{
    if (!completion) {
        return nullptr;
    }
    return
        [completion = std::move(completion)](const QVariantMap &reply, const HMMaybeError &error) {
            if (error) {
                completion(QVariantMap(), error);
            } else if (reply.value(kStatusKey).toString() != QLatin1String("ok") ||
                       reply.value(kStatusKey).typeId() != QMetaType::QString) {
                completion(reply, errorFromReply(reply));
            } else {
                completion(reply, std::nullopt);
            }
        };
}

void HMDaemonManager::startVPN(ReplyCompletion completion)
{
    QVariantMap message = request(QStringLiteral("startVPN"));
    message.insert(kParamsKey, QVariantMap{{QStringLiteral("daemonConfig"), getDaemonConfig()},
                                           {QStringLiteral("vpnConfig"), getVPNConfig()}});
    executeRequest(message, true, statusChecked(std::move(completion)));
}

void HMDaemonManager::stopVPN(ReplyCompletion completion)
{
    executeRequest(request(QStringLiteral("stopVPN")), true, std::move(completion));
}

void HMDaemonManager::stopVPN()
{
    executeRequest(request(QStringLiteral("stopVPN")), false, nullptr);
}

bool HMDaemonManager::writeStopRequests(int timeoutMs)
{
    bool written = true;
    for (const QString &action : {QStringLiteral("stopVPN"), QStringLiteral("stopDNSProxy")}) {
        HMWireMaybeError wireError;
        const int fd = unix_socket(m_paths.socketPath, &wireError);
        if (fd < 0) {
            HMLogError(QStringLiteral("Could not ask the helper to %1 at quit: %2")
                           .arg(action, errorFromWire(*wireError).description()));
            written = false;
            continue;
        }
        const timeval bound{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof(bound));
        wireError = write_data(fd, encode_dictionary(request(action)));
        // The helper reads a request it has received also after its client is gone.
        ::close(fd);
        if (wireError) {
            HMLogError(QStringLiteral("Could not ask the helper to %1 at quit: %2")
                           .arg(action, errorFromWire(*wireError).description()));
            written = false;
        }
    }
    return written;
}

void HMDaemonManager::getLogs(ReplyCompletion completion)
{
    executeRequest(request(QStringLiteral("getLogs")), true, statusChecked(std::move(completion)));
}

void HMDaemonManager::startDNSProxyWithTap(const QString &tap, int wisprouteMode,
                                           ReplyCompletion completion)
{
    QVariantMap message = request(QStringLiteral("startDNSProxy"));
    message.insert(kParamsKey,
                   QVariantMap{{QStringLiteral("daemonConfig"), getDaemonConfig()},
                               {QStringLiteral("proxyConfig"),
                                getDNSProxyConfigWithWisproute(wisprouteMode, tap.trimmed())}});
    message.insert(kDaemonKey, QStringLiteral("dns"));
    executeRequest(message, true, statusChecked(std::move(completion)));
}

void HMDaemonManager::stopDNSProxy(ReplyCompletion completion)
{
    QVariantMap message = request(QStringLiteral("stopDNSProxy"));
    message.insert(kDaemonKey, QStringLiteral("dns"));
    executeRequest(message, true, statusChecked(std::move(completion)));
}

void HMDaemonManager::checkDNSPortOpen(ReplyCompletion completion)
{
    executeRequest(request(QStringLiteral("checkDNSPortOpen")), true,
                   statusChecked(std::move(completion)));
}

void HMDaemonManager::removeOldDaemonIfPresent(const QString &label)
{
    const QString path = getInstalledDaemonPath(label);
    if (path.isEmpty() || !QFileInfo::exists(path)) {
        return;
    }
    QVariantMap message = request(QStringLiteral("suicide"));
    message.insert(kParamsKey, QVariantMap{{QStringLiteral("path"), path}});
    executeRequest(message, false, [](const QVariantMap &reply, const HMMaybeError &error) {
        if (error) {
            HMLogError(error->description());
        } else if (reply.value(kStatusKey).toString() != QLatin1String("ok")) {
            HMLogError(reply.value(kErrorKey).toString());
        }
    });
}

QString HMDaemonManager::getInstalledDaemonPath(const QString &label) const
{
    for (const QString &directory : m_paths.unitDirectories) {
        QFile unit(QDir(directory).filePath(label + QStringLiteral(".service")));
        if (!unit.open(QIODevice::ReadOnly | QIODevice::Text)) {
            continue;
        }
        QTextStream lines(&unit);
        bool inService = false;
        while (!lines.atEnd()) {
            const QString line = lines.readLine().trimmed();
            if (line.startsWith(QLatin1Char('['))) {
                inService = line == QLatin1String("[Service]");
            } else if (inService && line.startsWith(QLatin1String("ExecStart="))) {
                return programOfExecStart(line.mid(int(qstrlen("ExecStart="))));
            }
        }
        return QString(); // the first unit found wins, as with systemd's own search
    }
    return QString();
}

void HMDaemonManager::restartDnsProxy(int mode,
                                      std::function<void(const HMMaybeError &)> completion)
{
    if (!m_tapAdapter) {
        const HMError error = HMError::errorWithDescription(
            QStringLiteral("Cannot restart the DNS proxy: the tunnel device is not known"));
        HMLogError(error.description());
        if (completion) {
            dispatch_to_main([completion = std::move(completion), error] { completion(error); });
        }
        return;
    }
    startDNSProxyWithTap(
        m_tapAdapter(), mode,
        [completion = std::move(completion)](const QVariantMap &, const HMMaybeError &error) {
            if (completion) {
                completion(error);
            }
        });
}
