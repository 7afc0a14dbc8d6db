#include "HMOpenVPNArguments.h"

#include "HMOpenVPNArgumentForms.h"
#include "HMPathTrust.h"

#include <QRegularExpression>

namespace {

const QString &appLogPath()
{
    static const QString path = HMOpenVPNArgumentForms::vpnLogPath();
    return path;
}

QStringList bodyFor(HMOpenVPNArguments::Body body)
{
    return HMOpenVPNArgumentForms::body(body == HMOpenVPNArguments::Body::SelectiveRouting
                                            ? HMOpenVPNArgumentForms::Body::SelectiveRouting
                                            : HMOpenVPNArgumentForms::Body::FullTunnel);
}

int matchingPrefix(const QStringList &arguments, int offset, const QStringList &expected)
{
    int i = 0;
    while (i < expected.size() && offset + i < arguments.size() &&
           arguments.at(offset + i) == expected.at(i)) {
        ++i;
    }
    return i;
}

QString describeOption(const QString &actual, const QStringList &allowed, const QString &expected)
{
    if (actual.startsWith(QLatin1Char('-'))) {
        if (!allowed.contains(actual)) {
            return QStringLiteral("option '%1' is not allowed").arg(actual);
        }
        return QStringLiteral("option '%1' is out of place (expected '%2')").arg(actual, expected);
    }
    return QStringLiteral("argument '%1' is not accepted where '%2' belongs").arg(actual, expected);
}

QString describeBodyMismatch(const QStringList &arguments, int offset, const QStringList &form,
                             int matched)
{
    const int position = offset + matched;
    if (position >= arguments.size()) {
        return QStringLiteral("argument list ends after %1 arguments, inside the OpenVPN options")
            .arg(arguments.size());
    }
    const QString &actual = arguments.at(position);
    const QString previous = matched > 0 ? form.at(matched - 1) : QString();
    if (previous == QLatin1String("--up") || previous == QLatin1String("--down")) {
        return QStringLiteral("only the shipped up/down scripts may run; refused %1 '%2'")
            .arg(previous, actual);
    }
    if (previous == QLatin1String("--log")) {
        return QStringLiteral("OpenVPN's log must be %1; refused '%2'").arg(appLogPath(), actual);
    }
    return describeOption(actual, form, form.at(matched));
}

} // namespace

bool HMOpenVPNArguments::isValidHost(const QString &host)
{
    if (host.isEmpty() || host.size() > 253 || host.startsWith(QLatin1Char('-'))) {
        return false;
    }
    static const QRegularExpression name(
        QStringLiteral("^[A-Za-z0-9_]([A-Za-z0-9_-]{0,61}[A-Za-z0-9_])?(\\.[A-Za-z0-9_]([A-Za-z0-9_"
                       "-]{0,61}[A-Za-z0-9_])?)*\\.?$"));
    static const QRegularExpression ipv6(QStringLiteral("^[0-9A-Fa-f:.]+$"));
    if (host.contains(QLatin1Char(':'))) {
        return ipv6.match(host).hasMatch();
    }
    return name.match(host).hasMatch();
}

bool HMOpenVPNArguments::isValidPort(const QString &port)
{
    static const QRegularExpression digits(QStringLiteral("^[0-9]{1,5}$"));
    if (!digits.match(port).hasMatch()) {
        return false;
    }
    const int value = port.toInt();
    return value >= 1 && value <= 65535;
}

std::optional<HMOpenVPNArguments::Launch>
HMOpenVPNArguments::parse(const QStringList &arguments, const QString &resourceDir, QString *error)
{
    const QStringList expectedHead = HMOpenVPNArgumentForms::head(QString());
    for (int i = 0; i < expectedHead.size(); ++i) {
        if (i >= arguments.size()) {
            *error = QStringLiteral("argument list is too short for OpenVPN's fixed options");
            return std::nullopt;
        }
        if (i == 1) {
            if (!HMPathTrust::sameFile(arguments.at(1), resourceDir)) {
                *error = QStringLiteral(
                             "--cd must name the helper's resource directory %1; refused '%2'")
                             .arg(resourceDir, arguments.at(1));
                return std::nullopt;
            }
            continue;
        }
        if (arguments.at(i) != expectedHead.at(i)) {
            *error = describeOption(arguments.at(i), expectedHead, expectedHead.at(i));
            return std::nullopt;
        }
    }

    Launch launch;
    int position = expectedHead.size();
    if (position < arguments.size() && arguments.at(position) == QLatin1String("--config")) {
        if (position + 1 >= arguments.size() ||
            !arguments.at(position + 1).startsWith(QLatin1Char('/'))) {
            *error = QStringLiteral("--config must be followed by an absolute file path");
            return std::nullopt;
        }
        launch.body = Body::ConfigFile;
        launch.configFile = arguments.at(position + 1);
        position += 2;
    } else {
        const QStringList selective = bodyFor(Body::SelectiveRouting);
        const QStringList full = bodyFor(Body::FullTunnel);
        const int selectiveMatch = matchingPrefix(arguments, position, selective);
        const int fullMatch = matchingPrefix(arguments, position, full);
        if (selectiveMatch == selective.size()) {
            launch.body = Body::SelectiveRouting;
            position += selective.size();
        } else if (fullMatch == full.size()) {
            launch.body = Body::FullTunnel;
            position += full.size();
        } else if (selectiveMatch >= fullMatch) {
            *error = describeBodyMismatch(arguments, position, selective, selectiveMatch);
            return std::nullopt;
        } else {
            *error = describeBodyMismatch(arguments, position, full, fullMatch);
            return std::nullopt;
        }
    }

    while (position < arguments.size()) {
        const QString &option = arguments.at(position);
        if (option != QLatin1String("--remote")) {
            *error =
                describeOption(option, {QStringLiteral("--remote")}, QStringLiteral("--remote"));
            return std::nullopt;
        }
        if (position + 3 >= arguments.size()) {
            *error = QStringLiteral("--remote needs a host, a port and a protocol");
            return std::nullopt;
        }
        Remote remote{arguments.at(position + 1), arguments.at(position + 2),
                      arguments.at(position + 3)};
        if (!isValidHost(remote.host)) {
            *error =
                QStringLiteral("--remote host '%1' is not a host name or address").arg(remote.host);
            return std::nullopt;
        }
        if (!isValidPort(remote.port)) {
            *error =
                QStringLiteral("--remote port '%1' is not a port from 1 to 65535").arg(remote.port);
            return std::nullopt;
        }
        if (remote.protocol != QLatin1String("udp") && remote.protocol != QLatin1String("tcp")) {
            *error = QStringLiteral("--remote protocol '%1' is neither udp nor tcp")
                         .arg(remote.protocol);
            return std::nullopt;
        }
        if (launch.remotes.size() >= kMaxRemotes) {
            *error = QStringLiteral("more than %1 --remote entries").arg(kMaxRemotes);
            return std::nullopt;
        }
        launch.remotes.append(remote);
        position += 4;
    }
    return launch;
}

QStringList HMOpenVPNArguments::build(const Launch &launch, const HMHelperConfig &config,
                                      const Management &management, const QString &sanitisedConfig)
{
    QStringList result = HMOpenVPNArgumentForms::head(config.resourceDir);
    // "--management 127.0.0.1 5678" would let every local user take the interface.
    const qsizetype address = result.indexOf(QStringLiteral("--management")) + 1;
    result[address] = management.socketPath;
    result[address + 1] = QStringLiteral("unix");
    if (launch.body == Body::ConfigFile) {
        result << QStringLiteral("--config") << sanitisedConfig;
    } else {
        const QStringList body = bodyFor(launch.body);
        for (int i = 0; i < body.size(); ++i) {
            const QString &word = body.at(i);
            if (word == QLatin1String("system") && i >= 2 &&
                body.at(i - 2) == QLatin1String("--script-security")) {
                continue;
            }
            if (word == QLatin1String("--daemon")) {
                continue;
            }
            result << (i > 0 && body.at(i - 1) == QLatin1String("--log") ? config.vpnLogPath()
                                                                         : word);
        }
    }
    for (const Remote &remote : launch.remotes) {
        result << QStringLiteral("--remote") << remote.host << remote.port << remote.protocol;
    }
    // Last, so that they win over anything before them.
    result << QStringLiteral("--cd") << config.resourceDir << QStringLiteral("--log")
           << config.vpnLogPath() << QStringLiteral("--setenv") << QStringLiteral("HM_STATE_DIR")
           << config.runDir << QStringLiteral("--management-client-user") << management.user;
    return result;
}
