#include "HMStringExtensions.h"

#include <QFile>
#include <QRegularExpression>

bool contains(const QString &receiver, const QString &needle)
{
    return receiver.contains(needle, Qt::CaseSensitive);
}

bool containsRegex(const QString &receiver, const QString &pattern)
{
    const QRegularExpression expression(QRegularExpression::anchoredPattern(pattern));
    if (!expression.isValid()) {
        return false;
    }
    return expression.match(receiver).hasMatch();
}

bool appendToFile(const QString &text, const QString &path)
{
    return appendToFile(text.toUtf8(), path);
}

bool appendToFile(const QByteArray &data, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        return false;
    }
    const qint64 written = file.write(data);
    file.close();
    return written == data.size();
}
