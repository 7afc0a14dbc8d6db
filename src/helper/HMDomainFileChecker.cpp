#include "HMDomainFileChecker.h"

namespace {

constexpr int kMaxExamples = 3;
constexpr int kMaxNameLength = 253;
constexpr int kMaxLabelLength = 63;

QString printable(const QByteArray &line)
{
    QString shown;
    for (char c : line.left(48)) {
        shown += (c >= 0x20 && c < 0x7f) ? QChar::fromLatin1(c) : QChar(u'?');
    }
    return line.size() > 48 ? shown + QStringLiteral("...") : shown;
}

} // namespace

bool HMDomainFileChecker::isHostName(const QByteArray &name)
{
    if (name.isEmpty() || name.size() > kMaxNameLength) {
        return false;
    }
    for (const QByteArray &label : name.split('.')) {
        if (label.isEmpty() || label.size() > kMaxLabelLength || label.startsWith('-') ||
            label.endsWith('-')) {
            return false;
        }
        for (char c : label) {
            const bool allowed =
                (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
            if (!allowed) {
                return false;
            }
        }
    }
    return true;
}

HMDomainFileChecker::Result HMDomainFileChecker::check(const QByteArray &text)
{
    Result result;
    for (const QByteArray &line : text.split('\n')) {
        // Blanks around a name (a "\r" from another editor, a stray space) are not worth
        // losing the entry over.
        QByteArray name = line.trimmed().toLower();
        if (name.endsWith('.')) {
            name.chop(1);
        }
        if (line.trimmed().isEmpty()) {
            continue;
        }
        if (!isHostName(name)) {
            ++result.skipped;
            if (result.examples.size() < kMaxExamples) {
                result.examples << printable(line);
            }
            continue;
        }
        result.checked += name + '\n';
        ++result.kept;
    }
    return result;
}
