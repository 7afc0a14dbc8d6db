#include "HMProcess.h"

#include <QProcess>
#include <QStringDecoder>

std::optional<QString> decode_trimmed_utf8(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError()) {
        return std::nullopt;
    }
    return text.trimmed();
}

int run(const QString &launchPath, const QStringList &arguments, std::optional<QString> *output,
        std::optional<QString> *errorOutput)
{
    QProcess process;
    process.setProgram(launchPath);
    process.setArguments(arguments);
    // Standard input stays the parent's, as for any tool started from a terminal.
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    process.start();
    if (!process.waitForStarted(-1)) {
        if (output) {
            *output = std::nullopt;
        }
        if (errorOutput) {
            *errorOutput = std::nullopt;
        }
        return -1;
    }
    process.waitForFinished(-1);
    const QByteArray out = process.readAllStandardOutput();
    const QByteArray err = process.readAllStandardError();
    if (output) {
        *output = decode_trimmed_utf8(out);
    }
    if (errorOutput) {
        *errorOutput = decode_trimmed_utf8(err);
    }
    if (process.exitStatus() != QProcess::NormalExit) {
        return -1;
    }
    return process.exitCode();
}
