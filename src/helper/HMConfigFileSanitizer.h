// Makes an operator's OpenVPN configuration file ("vpnConfigFile") safe for a root OpenVPN.
// Only directives that shape the connection itself are allowed; anything that runs
// programs, loads code, reads or writes other files, or changes where OpenVPN lives or logs
// (up, down, plugin, script-security, setenv, config, cd, log, writepid, management, iproute,
// ...) is refused with its line number. Certificates and keys may come inline or as a bare
// file name, which OpenVPN then finds in the helper's resource directory. The result is
// re-quoted line by line, so OpenVPN parses exactly what was checked, and written as the
// helper's own copy in its private run directory.
#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

class HMConfigFileSanitizer
{
public:
    static constexpr qint64 kMaxFileSize = 256 * 1024;

    static std::optional<QByteArray> sanitize(const QByteArray &text, QString *error);
    // Writes the copy (0600) into runDir, replacing any earlier one; its path, or empty.
    static QString writeCopy(const QByteArray &sanitised, const QString &runDir, QString *error);
};
