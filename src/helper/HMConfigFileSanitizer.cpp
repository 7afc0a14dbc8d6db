#include "HMConfigFileSanitizer.h"

#include "HMInlineMaterial.h"
#include "HMOpenVPNArguments.h"
#include "HMOpenVPNConfigReader.h"

#include <QHash>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QStringList>

namespace {

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

// The tokens as texts for the directive table. Control characters could only be smuggled in
// by quoting; non-UTF-8 bytes would not survive the re-quoting unchanged.
std::optional<QStringList> texts(const QList<QByteArray> &tokens, QString *error)
{
    QStringList result;
    for (const QByteArray &token : tokens) {
        for (const char c : token) {
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
                *error = QStringLiteral("a value contains a control character");
                return std::nullopt;
            }
        }
        const QString text = QString::fromUtf8(token);
        if (text.toUtf8() != token) {
            *error = QStringLiteral("a value is not UTF-8 text");
            return std::nullopt;
        }
        result << text;
    }
    return result;
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

bool HMConfigFileSanitizer::isAllowedDirective(const QString &name)
{
    return allowed().contains(name);
}

bool HMConfigFileSanitizer::isInlineTag(const QString &tag)
{
    return inlineTags().contains(tag);
}

std::optional<QByteArray> HMConfigFileSanitizer::sanitize(const QByteArray &text, QString *error)
{
    using Reader = HMOpenVPNConfigReader;
    if (text.size() > kMaxFileSize) {
        *error = QStringLiteral("configuration file is larger than %1 bytes").arg(kMaxFileSize);
        return std::nullopt;
    }
    if (text.contains('\0')) {
        *error = QStringLiteral("configuration file contains a NUL byte");
        return std::nullopt;
    }
    QList<QByteArray> lines = text.split('\n');
    if (text.endsWith('\n')) {
        lines.removeLast();
    }
    QByteArray output = "# checked copy made by hmwispd\n";
    QByteArray openTag;
    QList<QByteArray> block;
    for (int number = 1; number <= lines.size(); ++number) {
        const QByteArray &line = lines.at(number - 1);
        const auto fail = [&](const QString &why) {
            *error = QStringLiteral("configuration file line %1: %2").arg(number).arg(why);
            return std::nullopt;
        };
        // OpenVPN would read a longer line in pieces, each judged on its own.
        if (line.size() > Reader::kMaxLineBytes) {
            return fail(QStringLiteral("line is longer than %1 bytes").arg(Reader::kMaxLineBytes));
        }
        if (!openTag.isEmpty()) {
            if (Reader::closesBlock(line, openTag)) {
                // OpenVPN ignores whatever follows the closing tag; nothing may hide there.
                if (!line.trimmed().endsWith('>') || line.trimmed().size() != openTag.size() + 3) {
                    return fail(
                        QStringLiteral("text follows </%1>").arg(QString::fromLatin1(openTag)));
                }
                const std::optional<QByteArray> material =
                    HMInlineMaterial::reemit(openTag, block, error);
                if (!material) {
                    return fail(
                        QStringLiteral("<%1>: %2").arg(QString::fromLatin1(openTag), *error));
                }
                output += '<' + openTag + ">\n" + *material + "</" + openTag + ">\n";
                openTag.clear();
                block.clear();
            } else if (line.contains('<')) {
                return fail(QStringLiteral("unexpected '%1' inside <%2>")
                                .arg(QString::fromUtf8(line.trimmed().left(64)),
                                     QString::fromLatin1(openTag)));
            } else {
                block << line;
            }
            continue;
        }
        QString why;
        const std::optional<QList<QByteArray>> raw = Reader::tokenize(line, &why);
        if (!raw) {
            return fail(why);
        }
        if (raw->isEmpty()) {
            continue;
        }
        if (const std::optional<QByteArray> tag = Reader::openedTag(*raw)) {
            if (!inlineTags().contains(QString::fromLatin1(*tag))) {
                return fail(QStringLiteral("inline block '<%1>' is not allowed")
                                .arg(QString::fromUtf8(tag->left(64))));
            }
            openTag = *tag;
            continue;
        }
        const std::optional<QStringList> tokens = texts(*raw, &why);
        if (!tokens) {
            return fail(why);
        }
        QString name = tokens->first();
        // OpenVPN accepts "--name" in files too; the check must see the same name.
        if (name.startsWith(QLatin1String("--"))) {
            name = name.mid(2);
        }
        const auto directive = allowed().constFind(name);
        if (directive == allowed().constEnd()) {
            return fail(QStringLiteral("directive '%1' is not allowed").arg(name.left(64)));
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
        const QByteArray checked = quotedLine.join(QLatin1Char(' ')).toUtf8();
        if (checked.size() > Reader::kMaxLineBytes) {
            return fail(QStringLiteral("line is longer than %1 bytes once quoted")
                            .arg(Reader::kMaxLineBytes));
        }
        output += checked + '\n';
    }
    if (!openTag.isEmpty()) {
        *error =
            QStringLiteral("configuration file ends inside <%1>").arg(QString::fromLatin1(openTag));
        return std::nullopt;
    }
    return output;
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
