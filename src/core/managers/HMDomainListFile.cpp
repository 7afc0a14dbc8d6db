#include "HMDomainListFile.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringDecoder>

QStringList HMDomainListFile::parse(const QString &text)
{
    QStringList pieces = text.split(QLatin1Char('\n'));
    if (!pieces.isEmpty() && pieces.constLast().isEmpty()) {
        pieces.removeLast();
    }
    return pieces;
}

QByteArray HMDomainListFile::serialize(const QStringList &domains)
{
    QByteArray bytes;
    for (const QString &domain : domains) {
        bytes += domain.toUtf8();
        bytes += '\n';
    }
    return bytes;
}

HMDomainListFile::ReadResult HMDomainListFile::read(const QString &path, QStringList *domains,
                                                    QString *why)
{
    const QFileInfo info(path);
    if (path.isEmpty() || !info.exists()) {
        return ReadResult::Missing;
    }
    if (info.isDir()) {
        *why = QStringLiteral("it is a directory");
        return ReadResult::Unreadable;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *why = file.errorString();
        return ReadResult::Unreadable;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        *why = file.errorString();
        return ReadResult::Unreadable;
    }
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(bytes);
    if (decoder.hasError()) {
        *why = QStringLiteral("it is not UTF-8 text");
        return ReadResult::Unreadable;
    }
    *domains = parse(text);
    return ReadResult::Loaded;
}

bool HMDomainListFile::write(const QString &path, const QStringList &domains, QString *why)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        *why = file.errorString();
        return false;
    }
    const QByteArray bytes = serialize(domains);
    if (file.write(bytes) != bytes.size()) {
        *why = file.errorString();
        file.cancelWriting();
        return false;
    }
    if (!file.commit()) {
        *why = file.errorString();
        return false;
    }
    return true;
}

QString HMDomainListFile::shellPath(const QString &directory, const QStringList &components)
{
    QStringList all = directory.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    all += components;
    QString result;
    for (const QString &component : std::as_const(all)) {
        result += QLatin1Char('/');
        if (component.contains(QLatin1Char(' '))) {
            result += QLatin1Char('"') + component + QLatin1Char('"');
        } else {
            result += component;
        }
    }
    return result;
}
