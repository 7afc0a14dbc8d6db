#include "HMHelperService.h"

#include "HMConfigFileSanitizer.h"
#include "HMDNSPortCheck.h"
#include "HMHelperLog.h"
#include "HMLogTail.h"
#include "HMOpenVPNArguments.h"
#include "HMPathTrust.h"
#include "HMPeerCredentials.h"
#include "HMPeerFileReader.h"

#include <QCborArray>
#include <QCborValue>
#include <QStringList>

namespace {

constexpr int kMaxArguments = 512;

const QString kAction = QStringLiteral("action");
const QString kParams = QStringLiteral("params");
const QString kDaemon = QStringLiteral("daemon");
const QString kDaemonConfig = QStringLiteral("daemonConfig");

std::optional<QStringList> stringList(const QCborValue &value, const QString &where, QString *error)
{
    if (!value.isArray()) {
        *error = QStringLiteral("%1 must be a list of texts").arg(where);
        return std::nullopt;
    }
    const QCborArray array = value.toArray();
    if (array.size() > kMaxArguments) {
        *error = QStringLiteral("%1 has more than %2 entries").arg(where).arg(kMaxArguments);
        return std::nullopt;
    }
    QStringList list;
    for (const QCborValue &item : array) {
        if (!item.isString()) {
            *error = QStringLiteral("%1 must be a list of texts").arg(where);
            return std::nullopt;
        }
        list << item.toString();
    }
    return list;
}

} // namespace

HMHelperService::HMHelperService(const HMHelperConfig &config, HMHelperLog &log)
    : m_config(config), m_log(log), m_openVPN(config, log), m_ownership(config),
      m_dnsProxy(config, log)
{}

QCborMap HMHelperService::okReply()
{
    QCborMap reply;
    reply.insert(QStringLiteral("status"), QStringLiteral("ok"));
    return reply;
}

QCborMap HMHelperService::errorReply(const QString &message)
{
    QCborMap reply;
    reply.insert(QStringLiteral("status"), QStringLiteral("error"));
    reply.insert(QStringLiteral("error"), message);
    return reply;
}

QCborMap HMHelperService::refuse(const HMPeerCredentials &peer, const QString &action,
                                 const QString &reason)
{
    m_log.write(
        QStringLiteral("refused %1 from %2: %3")
            .arg(action.isEmpty() ? QStringLiteral("request") : action, peer.describe(), reason));
    return errorReply(reason);
}

QCborMap HMHelperService::failure(const HMPeerCredentials &peer, const QString &action,
                                  const QString &reason)
{
    m_log.write(QStringLiteral("%1 from %2 failed: %3").arg(action, peer.describe(), reason));
    return errorReply(reason);
}

QString HMHelperService::checkKeys(const QCborMap &map, const QStringList &required,
                                   const QStringList &optional, const QString &where) const
{
    for (const QString &key : required) {
        if (!map.contains(key)) {
            return QStringLiteral("%1 lacks '%2'").arg(where, key);
        }
    }
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        const QString key = it.key().toString();
        if (!required.contains(key) && !optional.contains(key)) {
            return QStringLiteral("%1 has the unexpected key '%2'").arg(where, key);
        }
    }
    return QString();
}

QString HMHelperService::checkDaemonConfig(const QCborMap &params, bool openVPN) const
{
    const QCborValue value = params.value(kDaemonConfig);
    if (!value.isMap()) {
        return QStringLiteral("daemonConfig must be a dictionary");
    }
    const QCborMap daemonConfig = value.toMap();
    const QString problem =
        checkKeys(daemonConfig, {QStringLiteral("openVPNPath"), QStringLiteral("dnsProxyPath")}, {},
                  kDaemonConfig);
    if (!problem.isEmpty()) {
        return problem;
    }
    const QCborValue openVPNPath = daemonConfig.value(QStringLiteral("openVPNPath"));
    const QCborValue dnsProxyPath = daemonConfig.value(QStringLiteral("dnsProxyPath"));
    if (!openVPNPath.isString() || !dnsProxyPath.isString()) {
        return QStringLiteral("daemonConfig paths must be texts");
    }
    const QString named = (openVPN ? openVPNPath : dnsProxyPath).toString();
    const QString trusted = openVPN ? m_config.openVPNPath : m_config.dnsProxyPath;
    const QString program = openVPN ? QStringLiteral("OpenVPN") : QStringLiteral("DNS proxy");
    const QString trust = HMPathTrust::check(trusted, HMPathTrust::Kind::Executable);
    if (!trust.isEmpty()) {
        return QStringLiteral("the helper's %1 cannot be trusted: %2").arg(program, trust);
    }
    if (!HMPathTrust::sameFile(named, trusted)) {
        return QStringLiteral("daemonConfig names '%1', which is not the helper's %2 (%3)")
            .arg(named, program, trusted);
    }
    return QString();
}

HMHelperService::Outcome HMHelperService::handle(const QCborMap &request,
                                                 const HMPeerCredentials &peer)
{
    Outcome outcome;
    const QCborValue actionValue = request.value(kAction);
    if (!actionValue.isString()) {
        outcome.reply = refuse(peer, QString(), QStringLiteral("request has no text 'action'"));
        return outcome;
    }
    const QString action = actionValue.toString();
    const QString foreign = m_ownership.check(peer, action);
    if (!foreign.isEmpty()) {
        outcome.reply = refuse(peer, action, foreign);
        return outcome;
    }

    const auto shape = [&](const QStringList &required, const QStringList &optional) {
        return checkKeys(request, QStringList{kAction} + required, optional,
                         QStringLiteral("request"));
    };
    QString problem;
    if (action == QLatin1String("startVPN")) {
        outcome.reply = startVPN(request, peer);
    } else if (action == QLatin1String("stopVPN")) {
        problem = shape({}, {});
        outcome.reply = problem.isEmpty() ? stopVPN(peer) : QCborMap();
    } else if (action == QLatin1String("getLogs")) {
        problem = shape({}, {});
        outcome.reply = problem.isEmpty() ? getLogs() : QCborMap();
    } else if (action == QLatin1String("checkDNSPortOpen")) {
        problem = shape({}, {});
        if (problem.isEmpty()) {
            const QString busy = HMDNSPortCheck::check(m_config.dnsProxyPath);
            outcome.reply = busy.isEmpty() ? okReply() : errorReply(busy);
        }
    } else if (action == QLatin1String("startDNSProxy")) {
        outcome.reply = startDNSProxy(request, peer);
    } else if (action == QLatin1String("stopDNSProxy")) {
        problem = shape({kDaemon}, {});
        if (problem.isEmpty() && request.value(kDaemon) != QCborValue(QStringLiteral("dns"))) {
            problem = QStringLiteral("'daemon' must be \"dns\"");
        }
        if (problem.isEmpty()) {
            const QString why = m_dnsProxy.stop();
            outcome.reply =
                why.isEmpty() ? okReply() : failure(peer, QStringLiteral("stopDNSProxy"), why);
        }
    } else if (action == QLatin1String("suicide")) {
        problem = shape({}, {kParams});
        if (problem.isEmpty() && request.contains(kParams)) {
            const QCborValue params = request.value(kParams);
            const QCborValue path = params.toMap().value(QStringLiteral("path"));
            if (!params.isMap() ||
                !checkKeys(params.toMap(), {}, {QStringLiteral("path")}, kParams).isEmpty() ||
                (!path.isUndefined() && !path.isString())) {
                problem = QStringLiteral("suicide takes only a text 'path' in its params");
            }
        }
        if (problem.isEmpty()) {
            // The path names the helper's own program; it is deliberately left in place so
            // that no request can make root delete a file.
            const QString path =
                request.value(kParams).toMap().value(QStringLiteral("path")).toString();
            m_log.write(QStringLiteral("exiting at the request of %1; '%2' is left in place")
                            .arg(peer.describe(), path));
            outcome.reply = okReply();
            outcome.exitAfterReply = true;
        }
    } else {
        problem = QStringLiteral("unknown action '%1'").arg(action.left(64));
    }
    if (!problem.isEmpty()) {
        outcome.reply = refuse(peer, action.left(64), problem);
    }
    return outcome;
}

QCborMap HMHelperService::startVPN(const QCborMap &request, const HMPeerCredentials &peer)
{
    const QString action = QStringLiteral("startVPN");
    QString problem = checkKeys(request, {kAction, kParams}, {}, QStringLiteral("request"));
    if (problem.isEmpty() && !request.value(kParams).isMap()) {
        problem = QStringLiteral("params must be a dictionary");
    }
    const QCborMap params = request.value(kParams).toMap();
    if (problem.isEmpty()) {
        problem = checkKeys(params, {kDaemonConfig, QStringLiteral("vpnConfig")}, {}, kParams);
    }
    if (problem.isEmpty()) {
        problem = checkDaemonConfig(params, true);
    }
    std::optional<QStringList> arguments;
    if (problem.isEmpty()) {
        arguments = stringList(params.value(QStringLiteral("vpnConfig")),
                               QStringLiteral("vpnConfig"), &problem);
    }
    if (problem.isEmpty()) {
        const QString trust =
            HMPathTrust::check(m_config.resourceDir, HMPathTrust::Kind::Directory);
        if (!trust.isEmpty()) {
            problem =
                QStringLiteral("the helper's resource directory cannot be trusted: %1").arg(trust);
        }
    }
    std::optional<HMOpenVPNArguments::Launch> launch;
    if (problem.isEmpty()) {
        launch = HMOpenVPNArguments::parse(*arguments, m_config.resourceDir, &problem);
    }
    QString sanitisedPath;
    if (problem.isEmpty() && launch->body == HMOpenVPNArguments::Body::ConfigFile) {
        const std::optional<QByteArray> text = HMPeerFileReader::read(
            launch->configFile, peer, HMConfigFileSanitizer::kMaxFileSize, &problem);
        std::optional<QByteArray> sanitised;
        if (text) {
            sanitised = HMConfigFileSanitizer::sanitize(*text, &problem);
        }
        if (sanitised) {
            sanitisedPath = HMConfigFileSanitizer::writeCopy(*sanitised, m_config.runDir, &problem);
            if (sanitisedPath.isEmpty()) {
                return failure(peer, action, problem);
            }
        }
    }
    if (!problem.isEmpty()) {
        return refuse(peer, action, problem);
    }
    m_log.write(QStringLiteral("startVPN from %1").arg(peer.describe()));
    if (!m_ownership.claim(peer, &problem)) {
        return failure(peer, action, problem);
    }
    const QString why = m_openVPN.start(*launch, sanitisedPath, peer.uid);
    return why.isEmpty() ? okReply() : failure(peer, action, why);
}

QCborMap HMHelperService::stopVPN(const HMPeerCredentials &peer)
{
    const QString why = m_openVPN.stop();
    if (why.isEmpty()) {
        m_ownership.release();
    }
    return why.isEmpty() ? okReply() : failure(peer, QStringLiteral("stopVPN"), why);
}

QCborMap HMHelperService::getLogs() const
{
    QCborMap reply = okReply();
    reply.insert(QStringLiteral("vpnLog"), HMLogTail::readDeflated(m_config.vpnLogPath()).toWire());
    reply.insert(QStringLiteral("daemonLog"),
                 HMLogTail::readDeflated(m_config.daemonLogPath()).toWire());
    reply.insert(QStringLiteral("dnsLog"), HMLogTail::readDeflated(m_config.dnsLogPath()).toWire());
    return reply;
}

QCborMap HMHelperService::startDNSProxy(const QCborMap &request, const HMPeerCredentials &peer)
{
    const QString action = QStringLiteral("startDNSProxy");
    QString problem =
        checkKeys(request, {kAction, kParams, kDaemon}, {}, QStringLiteral("request"));
    if (problem.isEmpty() && request.value(kDaemon) != QCborValue(QStringLiteral("dns"))) {
        problem = QStringLiteral("'daemon' must be \"dns\"");
    }
    if (problem.isEmpty() && !request.value(kParams).isMap()) {
        problem = QStringLiteral("params must be a dictionary");
    }
    const QCborMap params = request.value(kParams).toMap();
    if (problem.isEmpty()) {
        problem = checkKeys(params, {kDaemonConfig, QStringLiteral("proxyConfig")}, {}, kParams);
    }
    if (problem.isEmpty()) {
        problem = checkDaemonConfig(params, false);
    }
    std::optional<HMDNSProxyController::Request> proxy;
    if (problem.isEmpty()) {
        const auto arguments = stringList(params.value(QStringLiteral("proxyConfig")),
                                          QStringLiteral("proxyConfig"), &problem);
        if (arguments) {
            proxy = m_dnsProxy.checkArguments(*arguments, &problem);
        }
    }
    if (!problem.isEmpty()) {
        return refuse(peer, action, problem);
    }
    bool refused = false;
    const QString why = m_dnsProxy.start(*proxy, peer, &refused);
    if (why.isEmpty()) {
        return okReply();
    }
    return refused ? refuse(peer, action, why) : failure(peer, action, why);
}
