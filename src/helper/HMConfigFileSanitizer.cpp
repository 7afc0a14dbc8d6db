#include "HMConfigFileSanitizer.h"

#include "HMOpenVPNArguments.h"

#include <QHash>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QStringList>

namespace {

constexpr int kMaxLineLength = 1024;
constexpr int kMaxTokenLength = 256;

enum class Value
{
    Plain,
    File,
    Remote,
    Device
};

struct Directive
{
    int minArgs;
    int maxArgs;
    Value first = Value::Plain;
};

const QHash<QString, Directive> &allowed()
{
    static const QHash<QString, Directive> table = {
        {QStringLiteral("client"), {0, 0}},
        {QStringLiteral("tls-client"), {0, 0}},
        {QStringLiteral("pull"), {0, 0}},
        {QStringLiteral("nobind"), {0, 0}},
        {QStringLiteral("float"), {0, 0}},
        {QStringLiteral("persist-key"), {0, 0}},
        {QStringLiteral("persist-tun"), {0, 0}},
        {QStringLiteral("auth-nocache"), {0, 0}},
        // Without a file argument: the application answers over the management interface.
        {QStringLiteral("auth-user-pass"), {0, 0}},
        {QStringLiteral("auth-retry"), {1, 1}},
        {QStringLiteral("remote-random"), {0, 0}},
        {QStringLiteral("mute-replay-warnings"), {0, 0}},
        {QStringLiteral("route-nopull"), {0, 0}},
        {QStringLiteral("comp-lzo"), {0, 1}},
        {QStringLiteral("compress"), {0, 1}},
        {QStringLiteral("allow-compression"), {1, 1}},
        {QStringLiteral("dev"), {1, 1, Value::Device}},
        {QStringLiteral("dev-type"), {1, 1}},
        {QStringLiteral("proto"), {1, 1}},
        {QStringLiteral("remote"), {1, 3, Value::Remote}},
        {QStringLiteral("port"), {1, 1}},
        {QStringLiteral("rport"), {1, 1}},
        {QStringLiteral("resolv-retry"), {1, 1}},
        {QStringLiteral("connect-retry"), {1, 2}},
        {QStringLiteral("connect-retry-max"), {1, 1}},
        {QStringLiteral("connect-timeout"), {1, 1}},
        {QStringLiteral("server-poll-timeout"), {1, 1}},
        {QStringLiteral("explicit-exit-notify"), {0, 1}},
        {QStringLiteral("verb"), {1, 1}},
        {QStringLiteral("mute"), {1, 1}},
        {QStringLiteral("cipher"), {1, 1}},
        {QStringLiteral("data-ciphers"), {1, 1}},
        {QStringLiteral("data-ciphers-fallback"), {1, 1}},
        {QStringLiteral("auth"), {1, 1}},
        {QStringLiteral("tls-version-min"), {1, 2}},
        {QStringLiteral("tls-version-max"), {1, 1}},
        {QStringLiteral("tls-cipher"), {1, 1}},
        {QStringLiteral("tls-ciphersuites"), {1, 1}},
        {QStringLiteral("remote-cert-tls"), {1, 1}},
        {QStringLiteral("remote-cert-ku"), {1, 6}},
        {QStringLiteral("remote-cert-eku"), {1, 1}},
        {QStringLiteral("ns-cert-type"), {1, 1}},
        {QStringLiteral("verify-x509-name"), {1, 2}},
        {QStringLiteral("key-direction"), {1, 1}},
        {QStringLiteral("ping"), {1, 1}},
        {QStringLiteral("ping-restart"), {1, 1}},
        {QStringLiteral("ping-exit"), {1, 1}},
        {QStringLiteral("keepalive"), {2, 2}},
        {QStringLiteral("hand-window"), {1, 1}},
        {QStringLiteral("tls-timeout"), {1, 1}},
        {QStringLiteral("tran-window"), {1, 1}},
        {QStringLiteral("reneg-sec"), {1, 2}},
        {QStringLiteral("tun-mtu"), {1, 1}},
        {QStringLiteral("mssfix"), {0, 2}},
        {QStringLiteral("fragment"), {1, 2}},
        {QStringLiteral("sndbuf"), {1, 1}},
        {QStringLiteral("rcvbuf"), {1, 1}},
        {QStringLiteral("dhcp-option"), {1, 2}},
        {QStringLiteral("route"), {1, 4}},
        {QStringLiteral("route-metric"), {1, 1}},
        {QStringLiteral("redirect-gateway"), {0, 6}},
        {QStringLiteral("topology"), {1, 1}},
        {QStringLiteral("pull-filter"), {2, 2}},
        {QStringLiteral("ca"), {1, 1, Value::File}},
        {QStringLiteral("cert"), {1, 1, Value::File}},
        {QStringLiteral("key"), {1, 1, Value::File}},
        {QStringLiteral("extra-certs"), {1, 1, Value::File}},
        {QStringLiteral("crl-verify"), {1, 1, Value::File}},
        {QStringLiteral("pkcs12"), {1, 1, Value::File}},
        {QStringLiteral("tls-auth"), {1, 2, Value::File}},
        {QStringLiteral("tls-crypt"), {1, 1, Value::File}},
        {QStringLiteral("tls-crypt-v2"), {1, 1, Value::File}},
    };
    return table;
}

const QSet<QString> &inlineTags()
{
    static const QSet<QString> tags = {QStringLiteral("ca"),          QStringLiteral("cert"),
                                       QStringLiteral("key"),         QStringLiteral("extra-certs"),
                                       QStringLiteral("crl-verify"),  QStringLiteral("pkcs12"),
                                       QStringLiteral("tls-auth"),    QStringLiteral("tls-crypt"),
                                       QStringLiteral("tls-crypt-v2")};
    return tags;
}

// Splits a line the way OpenVPN does: blanks separate, '#' or ';' at a token start ends the
// line, double quotes group with backslash escapes, single quotes group literally.
std::optional<QStringList> tokenize(const QString &line, QString *error)
{
    QStringList tokens;
    QString current;
    bool inToken = false;
    enum
    {
        Bare,
        Double,
        Single
    } quote = Bare;
    for (int i = 0; i < line.size(); ++i) {
        const QChar c = line.at(i);
        if (quote == Bare && !inToken) {
            if (c.isSpace()) {
                continue;
            }
            if (c == QLatin1Char('#') || c == QLatin1Char(';')) {
                break;
            }
            inToken = true;
        }
        if (quote == Single) {
            if (c == QLatin1Char('\'')) {
                quote = Bare;
            } else {
                current += c;
            }
            continue;
        }
        if (c == QLatin1Char('\\')) {
            if (++i >= line.size()) {
                *error = QStringLiteral("line ends with a backslash");
                return std::nullopt;
            }
            current += line.at(i);
            continue;
        }
        if (quote == Double) {
            if (c == QLatin1Char('"')) {
                quote = Bare;
            } else {
                current += c;
            }
            continue;
        }
        if (c == QLatin1Char('"')) {
            quote = Double;
        } else if (c == QLatin1Char('\'')) {
            quote = Single;
        } else if (c.isSpace()) {
            tokens << current;
            current.clear();
            inToken = false;
        } else {
            current += c;
        }
    }
    if (quote != Bare) {
        *error = QStringLiteral("unterminated quote");
        return std::nullopt;
    }
    if (inToken) {
        tokens << current;
    }
    for (const QString &token : tokens) {
        if (token.size() > kMaxTokenLength) {
            *error = QStringLiteral("a value is longer than %1 characters").arg(kMaxTokenLength);
            return std::nullopt;
        }
        for (const QChar c : token) {
            if (c.unicode() < 0x20 || c.unicode() == 0x7f) {
                *error = QStringLiteral("a value contains a control character");
                return std::nullopt;
            }
        }
    }
    return tokens;
}

QString quoted(const QString &token)
{
    QString escaped = token;
    escaped.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('"'), QLatin1String("\\\""));
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}

QString checkValue(Value kind, const QStringList &arguments)
{
    static const QRegularExpression bareFile(QStringLiteral("^[A-Za-z0-9_][A-Za-z0-9._-]*$"));
    static const QRegularExpression device(QStringLiteral("^[A-Za-z0-9_][A-Za-z0-9_.-]{0,14}$"));
    switch (kind) {
    case Value::File:
        if (!bareFile.match(arguments.at(0)).hasMatch()) {
            return QStringLiteral(
                       "'%1' must be inline or a plain file name of the helper's resources")
                .arg(arguments.at(0));
        }
        break;
    case Value::Device:
        if (!device.match(arguments.at(0)).hasMatch()) {
            return QStringLiteral("'%1' is not a device name").arg(arguments.at(0));
        }
        break;
    case Value::Remote:
        if (!HMOpenVPNArguments::isValidHost(arguments.at(0))) {
            return QStringLiteral("'%1' is not a host name or address").arg(arguments.at(0));
        }
        if (arguments.size() > 1 && !HMOpenVPNArguments::isValidPort(arguments.at(1))) {
            return QStringLiteral("'%1' is not a port from 1 to 65535").arg(arguments.at(1));
        }
        break;
    case Value::Plain:
        break;
    }
    for (int i = 0; i < arguments.size(); ++i) {
        if (kind != Value::Plain && i == 0) {
            continue;
        }
        if (arguments.at(i).contains(QLatin1Char('/')) && kind != Value::Plain) {
            return QStringLiteral("'%1' may not be a path").arg(arguments.at(i));
        }
    }
    return QString();
}

} // namespace

std::optional<QByteArray> HMConfigFileSanitizer::sanitize(const QByteArray &text, QString *error)
{
    if (text.size() > kMaxFileSize) {
        *error = QStringLiteral("configuration file is larger than %1 bytes").arg(kMaxFileSize);
        return std::nullopt;
    }
    if (text.contains('\0')) {
        *error = QStringLiteral("configuration file contains a NUL byte");
        return std::nullopt;
    }
    const QString content = QString::fromUtf8(text);
    const QStringList lines = content.split(QLatin1Char('\n'));
    QStringList output = {QStringLiteral("# checked copy made by hmwispd")};
    QString openTag;
    for (int number = 1; number <= lines.size(); ++number) {
        QString line = lines.at(number - 1);
        if (line.endsWith(QLatin1Char('\r'))) {
            line.chop(1);
        }
        const auto fail = [&](const QString &why) {
            *error = QStringLiteral("configuration file line %1: %2").arg(number).arg(why);
            return std::nullopt;
        };
        if (!openTag.isEmpty()) {
            if (line.trimmed() == QStringLiteral("</%1>").arg(openTag)) {
                output << QStringLiteral("</%1>").arg(openTag);
                openTag.clear();
            } else if (line.trimmed().startsWith(QLatin1Char('<'))) {
                return fail(
                    QStringLiteral("unexpected '%1' inside <%2>").arg(line.trimmed(), openTag));
            } else {
                output << line;
            }
            continue;
        }
        if (line.size() > kMaxLineLength) {
            return fail(QStringLiteral("line is longer than %1 characters").arg(kMaxLineLength));
        }
        const QString trimmed = line.trimmed();
        if (trimmed.startsWith(QLatin1Char('<'))) {
            static const QRegularExpression tag(QStringLiteral("^<([a-z0-9-]+)>$"));
            const QRegularExpressionMatch match = tag.match(trimmed);
            if (!match.hasMatch() || !inlineTags().contains(match.captured(1))) {
                return fail(QStringLiteral("inline block '%1' is not allowed").arg(trimmed));
            }
            openTag = match.captured(1);
            output << trimmed;
            continue;
        }
        QString why;
        const std::optional<QStringList> tokens = tokenize(line, &why);
        if (!tokens) {
            return fail(why);
        }
        if (tokens->isEmpty()) {
            continue;
        }
        QString name = tokens->first();
        // OpenVPN accepts "--name" in files too; the check must see the same name.
        if (name.startsWith(QLatin1String("--"))) {
            name = name.mid(2);
        }
        const auto directive = allowed().constFind(name);
        if (directive == allowed().constEnd()) {
            return fail(QStringLiteral("directive '%1' is not allowed").arg(name));
        }
        const QStringList arguments = tokens->mid(1);
        if (arguments.size() < directive->minArgs || arguments.size() > directive->maxArgs) {
            return fail(QStringLiteral("directive '%1' takes %2 to %3 values, not %4")
                            .arg(name)
                            .arg(directive->minArgs)
                            .arg(directive->maxArgs)
                            .arg(arguments.size()));
        }
        if (!arguments.isEmpty()) {
            why = checkValue(directive->first, arguments);
            if (!why.isEmpty()) {
                return fail(QStringLiteral("directive '%1': %2").arg(name, why));
            }
        }
        QStringList quotedLine = {name};
        for (const QString &argument : arguments) {
            quotedLine << quoted(argument);
        }
        output << quotedLine.join(QLatin1Char(' '));
    }
    if (!openTag.isEmpty()) {
        *error = QStringLiteral("configuration file ends inside <%1>").arg(openTag);
        return std::nullopt;
    }
    return (output.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8();
}

QString HMConfigFileSanitizer::writeCopy(const QByteArray &sanitised, const QString &runDir,
                                         QString *error)
{
    const QString path = runDir + QStringLiteral("/openvpn-client.conf");
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) ||
        !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) ||
        file.write(sanitised) != sanitised.size() || !file.commit()) {
        *error = QStringLiteral("cannot write the checked configuration to %1: %2")
                     .arg(path, file.errorString());
        return QString();
    }
    return path;
}
