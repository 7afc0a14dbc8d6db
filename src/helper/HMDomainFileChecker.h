// The helper's checked copy of a user's domain list for the DNS proxy: the file is read
// with the user's own rights (HMPeerFileReader: no links, the user's or root's own regular
// file, bounded size), and only lines that are host names survive, one per line, lower-case,
// without a final dot. Blank lines vanish silently (the editor can store an empty entry);
// other invalid lines are skipped and reported, so a binary or hostile file yields a short
// or empty list rather than anything the proxy would have to second-guess.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

class HMDomainFileChecker
{
public:
    static constexpr qint64 kMaxFileSize = 4 * 1024 * 1024;

    struct Result
    {
        QByteArray checked; // one valid name per line
        int kept = 0;
        int skipped = 0;
        QStringList examples; // the first few skipped lines, printable and short
    };

    static Result check(const QByteArray &text);
    static bool isHostName(const QByteArray &name);
};
