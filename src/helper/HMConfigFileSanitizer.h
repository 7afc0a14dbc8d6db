// Makes an operator's OpenVPN configuration file ("vpnConfigFile") safe for a root OpenVPN.
// Only directives that shape the connection itself are allowed; anything that runs
// programs, loads code, reads or writes other files, or changes where OpenVPN lives or logs
// (up, down, plugin, script-security, setenv, config, cd, log, writepid, management, iproute,
// ...) is refused with its line number. Every line is judged on the tokens OpenVPN itself
// will see (HMOpenVPNConfigReader), and a line OpenVPN would read in pieces is refused.
// Certificates and keys may come inline, re-emitted as bare armour and base64/hex
// (HMInlineMaterial), or as a plain file name, which OpenVPN then finds in the helper's
// resource directory. Directives are re-quoted, so the copy written into the helper's
// private run directory reads one way only.
#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

class HMConfigFileSanitizer
{
public:
    static constexpr qint64 kMaxFileSize = 256 * 1024;

    static std::optional<QByteArray> sanitize(const QByteArray &text, QString *error);
    // Whether a checked copy may hold this directive, or this inline block.
    static bool isAllowedDirective(const QString &name);
    static bool isInlineTag(const QString &tag);
    // Writes the copy (0600) into runDir, replacing any earlier one; its path, or empty.
    static QString writeCopy(const QByteArray &sanitised, const QString &runDir, QString *error);
};
