#include "HMOpenVPNConfigReader.h"

bool HMOpenVPNConfigReader::isSpace(char c)
{
    // The C locale's isspace, plus the string's end, which ends a token the same way.
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r' || c == '\0';
}

std::optional<QList<QByteArray>> HMOpenVPNConfigReader::tokenize(const QByteArray &piece,
                                                                 QString *error)
{
    enum class State
    {
        Initial,
        Unquoted,
        Quoted,
        SingleQuoted
    };
    QList<QByteArray> tokens;
    QByteArray token;
    State state = State::Initial;
    bool backslash = false;
    // A piece is a C string to OpenVPN: it ends at the first NUL.
    const qsizetype end = piece.indexOf('\0') < 0 ? piece.size() : piece.indexOf('\0');
    for (qsizetype i = 0; i <= end; ++i) {
        const char in = i < end ? piece.at(i) : '\0';
        char out = 0;
        if (!backslash && in == '\\' && state != State::SingleQuoted) {
            backslash = true;
            continue;
        }
        bool done = false;
        switch (state) {
        case State::Initial:
            if (!isSpace(in)) {
                // A comment mark starts a comment even after a backslash.
                if (in == ';' || in == '#') {
                    return tokens;
                }
                if (!backslash && in == '"') {
                    state = State::Quoted;
                } else if (!backslash && in == '\'') {
                    state = State::SingleQuoted;
                } else {
                    out = in;
                    state = State::Unquoted;
                }
            }
            break;
        case State::Unquoted:
            // A quote inside an unquoted token is an ordinary character.
            if (!backslash && isSpace(in)) {
                done = true;
            } else {
                out = in;
            }
            break;
        case State::Quoted:
            // The closing quote ends the token even when more characters follow it.
            if (!backslash && in == '"') {
                done = true;
            } else {
                out = in;
            }
            break;
        case State::SingleQuoted:
            if (in == '\'') {
                done = true;
            } else {
                out = in;
            }
            break;
        }
        if (done) {
            tokens << token;
            token.clear();
            state = State::Initial;
        }
        if (backslash && out && out != '\\' && out != '"' && !isSpace(out)) {
            *error = QStringLiteral("a backslash may only escape a backslash, a quote or a blank");
            return std::nullopt;
        }
        backslash = false;
        if (out) {
            if (token.size() >= 256) {
                *error = QStringLiteral("a value is longer than 256 characters");
                return std::nullopt;
            }
            token += out;
        }
        if (tokens.size() >= kMaxTokens) {
            // OpenVPN silently drops what follows the sixteenth token.
            return tokens;
        }
    }
    if (state == State::Quoted || state == State::SingleQuoted) {
        *error = QStringLiteral("unterminated quote");
        return std::nullopt;
    }
    if (state != State::Initial) {
        *error = QStringLiteral("line ends inside a value");
        return std::nullopt;
    }
    return tokens;
}

std::optional<QByteArray> HMOpenVPNConfigReader::openedTag(const QList<QByteArray> &tokens)
{
    if (tokens.size() != 1) {
        return std::nullopt;
    }
    QByteArray word = tokens.first();
    if (word.startsWith("--")) {
        word = word.mid(2);
    }
    if (word.size() < 2 || !word.startsWith('<') || !word.endsWith('>')) {
        return std::nullopt;
    }
    return word.mid(1, word.size() - 2);
}

bool HMOpenVPNConfigReader::closesBlock(const QByteArray &piece, const QByteArray &tag)
{
    qsizetype start = 0;
    while (start < piece.size() && piece.at(start) != '\0' && isSpace(piece.at(start))) {
        ++start;
    }
    return piece.mid(start).startsWith(QByteArray("</" + tag + ">"));
}

QList<QByteArray> HMOpenVPNConfigReader::pieces(const QByteArray &file)
{
    QList<QByteArray> result;
    qsizetype at = 0;
    while (at < file.size()) {
        const qsizetype newline = file.indexOf('\n', at);
        const qsizetype lineEnd = newline < 0 ? file.size() : newline + 1;
        const qsizetype length = std::min<qsizetype>(lineEnd - at, kPieceBytes);
        result << file.mid(at, length);
        at += length;
    }
    return result;
}

std::optional<QList<HMOpenVPNConfigReader::Directive>>
HMOpenVPNConfigReader::reread(const QByteArray &file, QString *error)
{
    const QList<QByteArray> all = pieces(file);
    QList<Directive> directives;
    int line = 0;
    for (qsizetype i = 0; i < all.size(); ++i) {
        const QByteArray &piece = all.at(i);
        ++line;
        const QByteArray text =
            piece.left(piece.indexOf('\0') < 0 ? piece.size() : piece.indexOf('\0'));
        if (text.size() == kPieceBytes && !text.endsWith('\n')) {
            *error = QStringLiteral("line %1 exceeds OpenVPN's line length").arg(line);
            return std::nullopt;
        }
        QString why;
        const std::optional<QList<QByteArray>> tokens = tokenize(text, &why);
        if (!tokens) {
            *error = QStringLiteral("line %1: %2").arg(line).arg(why);
            return std::nullopt;
        }
        if (tokens->isEmpty()) {
            continue;
        }
        Directive directive;
        directive.line = line;
        directive.tokens = *tokens;
        if (directive.tokens.first().startsWith("--")) {
            directive.tokens.first().remove(0, 2);
        }
        if (const std::optional<QByteArray> tag = openedTag(*tokens)) {
            directive.tokens = {*tag};
            directive.isInline = true;
            bool closed = false;
            while (!closed && ++i < all.size()) {
                ++line;
                closed = closesBlock(all.at(i), *tag);
                if (!closed) {
                    directive.content += all.at(i);
                }
            }
            if (!closed) {
                *error =
                    QStringLiteral("block <%1> is never closed").arg(QString::fromLatin1(*tag));
                return std::nullopt;
            }
        }
        directives << directive;
    }
    return directives;
}
