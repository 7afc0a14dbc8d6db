#include "HMHelperConfig.h"

#include "HMHelperBuildConfig.h"
#include "HMOpenVPNArgumentForms.h"
#include "HMPathTrust.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>

namespace {

constexpr qint64 kMaxConfigFileSize = 64 * 1024;

bool parseTimeout(const QString &value, int *out)
{
    bool ok = false;
    const int ms = value.toInt(&ok);
    if (!ok || ms < 100 || ms > 600000) {
        return false;
    }
    *out = ms;
    return true;
}

} // namespace

HMHelperConfig HMHelperConfig::defaults()
{
    HMHelperConfig config;
    config.openVPNPath = QStringLiteral(HM_HELPER_OPENVPN);
    config.dnsProxyPath = QStringLiteral(HM_HELPER_WISPROUTE);
    config.resourceDir = QStringLiteral(HM_HELPER_RESOURCE_DIR);
    config.logDir = QStringLiteral(HM_HELPER_LOG_DIR);
    config.runDir = QStringLiteral(HM_HELPER_RUN_DIR);
    config.managementDir = HMOpenVPNArgumentForms::managementDirectory();
    config.allowedGroup = QStringLiteral(HM_HELPER_GROUP);
    return config;
}

bool HMHelperConfig::apply(const QString &key, const QString &value, QString *error)
{
    static const QSet<QString> pathKeys = {
        QStringLiteral("openvpn"), QStringLiteral("wisproute"), QStringLiteral("resources"),
        QStringLiteral("logs"),    QStringLiteral("run"),       QStringLiteral("management")};
    if (pathKeys.contains(key)) {
        if (!value.startsWith(QLatin1Char('/')) || value.contains(QLatin1String("/../")) ||
            value.endsWith(QLatin1String("/.."))) {
            *error = QStringLiteral("%1 must be an absolute path without '..'").arg(key);
            return false;
        }
        QString path = value;
        while (path.size() > 1 && path.endsWith(QLatin1Char('/'))) {
            path.chop(1);
        }
        if (key == QLatin1String("openvpn")) {
            openVPNPath = path;
        } else if (key == QLatin1String("wisproute")) {
            dnsProxyPath = path;
        } else if (key == QLatin1String("resources")) {
            resourceDir = path;
        } else if (key == QLatin1String("logs")) {
            logDir = path;
        } else if (key == QLatin1String("run")) {
            runDir = path;
        } else {
            managementDir = path;
        }
        return true;
    }
    if (key == QLatin1String("group")) {
        static const QRegularExpression groupName(QStringLiteral("^[a-z_][a-z0-9_-]{0,31}$"));
        if (!groupName.match(value).hasMatch()) {
            *error = QStringLiteral("group '%1' is not a valid group name").arg(value);
            return false;
        }
        allowedGroup = value;
        return true;
    }
    if (key == QLatin1String("tunnel-dns")) {
        static const QRegularExpression addresses(
            QStringLiteral("^\\d{1,3}(\\.\\d{1,3}){3}(,\\d{1,3}(\\.\\d{1,3}){3}){0,3}$"));
        if (!addresses.match(value).hasMatch()) {
            *error =
                QStringLiteral("tunnel-dns must list one to four IPv4 addresses, comma-separated");
            return false;
        }
        tunnelResolvers = value;
        return true;
    }
    int *timeout = nullptr;
    if (key == QLatin1String("client-timeout-ms")) {
        timeout = &clientTimeoutMs;
    } else if (key == QLatin1String("start-timeout-ms")) {
        timeout = &startTimeoutMs;
    } else if (key == QLatin1String("stop-timeout-ms")) {
        timeout = &stopTimeoutMs;
    }
    if (!timeout) {
        *error = QStringLiteral("unknown key '%1'").arg(key);
        return false;
    }
    if (!parseTimeout(value, timeout)) {
        *error = QStringLiteral("%1 must be a number of milliseconds from 100 to 600000").arg(key);
        return false;
    }
    return true;
}

std::optional<HMHelperConfig> HMHelperConfig::load(const QString &path, QString *error)
{
    const QString trust = HMPathTrust::check(path, HMPathTrust::Kind::RegularFile);
    if (!trust.isEmpty()) {
        *error = QStringLiteral("configuration file not trusted: %1").arg(trust);
        return std::nullopt;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    if (file.size() > kMaxConfigFileSize) {
        *error = QStringLiteral("%1 is larger than %2 bytes").arg(path).arg(kMaxConfigFileSize);
        return std::nullopt;
    }
    HMHelperConfig config = defaults();
    QSet<QString> seen;
    int lineNumber = 0;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &rawLine : lines) {
        ++lineNumber;
        QString line = QString::fromUtf8(rawLine);
        const int hash = line.indexOf(QLatin1Char('#'));
        if (hash >= 0) {
            line.truncate(hash);
        }
        line = line.trimmed();
        if (line.isEmpty()) {
            continue;
        }
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0) {
            *error = QStringLiteral("%1:%2: expected 'key = value'").arg(path).arg(lineNumber);
            return std::nullopt;
        }
        const QString key = line.left(equals).trimmed();
        const QString value = line.mid(equals + 1).trimmed();
        if (seen.contains(key)) {
            *error = QStringLiteral("%1:%2: '%3' is set twice").arg(path).arg(lineNumber).arg(key);
            return std::nullopt;
        }
        seen.insert(key);
        QString why;
        if (!config.apply(key, value, &why)) {
            *error = QStringLiteral("%1:%2: %3").arg(path).arg(lineNumber).arg(why);
            return std::nullopt;
        }
    }
    return config;
}

std::optional<HMHelperConfig> HMHelperConfig::loadDefault(QString *error)
{
    const QString path = QStringLiteral(HM_HELPER_CONFIG_FILE);
    if (!QFile::exists(path)) {
        return defaults();
    }
    return load(path, error);
}

QString HMHelperConfig::vpnLogPath() const
{
    return logDir + QStringLiteral("/vpn.log");
}

QString HMHelperConfig::daemonLogPath() const
{
    return logDir + QStringLiteral("/daemon.log");
}

QString HMHelperConfig::dnsLogPath() const
{
    return logDir + QStringLiteral("/dns.log");
}

QString HMHelperConfig::openVPNPidPath() const
{
    return runDir + QStringLiteral("/openvpn.pid");
}
