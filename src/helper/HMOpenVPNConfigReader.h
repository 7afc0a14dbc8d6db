// OpenVPN 2.6's own reading of a configuration file, byte for byte, so that the helper judges
// exactly what a root OpenVPN will act on (HMConfigFileSanitizer). OpenVPN takes a file in
// pieces of at most 255 bytes (a longer line in the main file is fatal, a longer line inside
// an inline block silently becomes several), splits a piece into at most 16 tokens with its
// own quote and backslash rules, opens an inline block on a line that is one token "<tag>"
// (quoted or with "--" too), and closes it on the first piece that, after leading blanks,
// starts with "</tag>", ignoring the rest of that piece. reread() replays all of it on a
// finished file; the fuzz target and the tests use it to check a copy the helper wrote.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <optional>

class HMOpenVPNConfigReader
{
public:
    // Bytes OpenVPN reads per piece, the newline included.
    static constexpr int kPieceBytes = 255;
    // Longest line (without its newline) that OpenVPN reads in one piece.
    static constexpr int kMaxLineBytes = kPieceBytes - 1;
    static constexpr int kMaxTokens = 16;

    struct Directive
    {
        int line = 0;
        QList<QByteArray> tokens;
        // Set for an inline block: the tag is tokens[0], this its raw content.
        bool isInline = false;
        QByteArray content;
    };

    static bool isSpace(char c);
    // One piece as OpenVPN tokenises it; nullopt (with OpenVPN's complaint) where it refuses.
    static std::optional<QList<QByteArray>> tokenize(const QByteArray &piece, QString *error);
    // The tag a line of these tokens opens, or nullopt when it is not a block opener.
    static std::optional<QByteArray> openedTag(const QList<QByteArray> &tokens);
    static bool closesBlock(const QByteArray &piece, const QByteArray &tag);
    // The file in the pieces OpenVPN's reads return.
    static QList<QByteArray> pieces(const QByteArray &file);
    // Every directive OpenVPN would act on, in order; nullopt where OpenVPN would stop.
    static std::optional<QList<Directive>> reread(const QByteArray &file, QString *error);
};
