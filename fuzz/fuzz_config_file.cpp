// An operator's OpenVPN file on its way to a root OpenVPN. Property: whatever the checker
// accepts, its copy read again with OpenVPN's own rules (pieces of 255 bytes, its
// tokeniser, its inline blocks) holds only allowed directives and allowed blocks, no piece
// that OpenVPN would split, block content of armour and base64/hex only, and checking the
// copy again gives the very same copy.
#include "HMConfigFileSanitizer.h"
#include "HMOpenVPNConfigReader.h"

#include <cstdint>
#include <cstdlib>

namespace {

bool isMaterial(const QByteArray &content)
{
    for (const QByteArray &line : content.split('\n')) {
        if (line.startsWith("-----")) {
            continue;
        }
        for (const char c : line) {
            const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                            (c >= '0' && c <= '9') || c == '+' || c == '/' || c == '=';
            if (!ok) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    QString error;
    const std::optional<QByteArray> copy = HMConfigFileSanitizer::sanitize(input, &error);
    if (!copy) {
        if (error.isEmpty()) {
            std::abort();
        }
        return 0;
    }
    for (const QByteArray &piece : HMOpenVPNConfigReader::pieces(*copy)) {
        if (!piece.endsWith('\n')) {
            std::abort(); // a line OpenVPN would read in two pieces
        }
    }
    const auto directives = HMOpenVPNConfigReader::reread(*copy, &error);
    if (!directives) {
        std::abort();
    }
    for (const HMOpenVPNConfigReader::Directive &directive : *directives) {
        const QString name = QString::fromUtf8(directive.tokens.first());
        if (directive.isInline
                ? !HMConfigFileSanitizer::isInlineTag(name) || !isMaterial(directive.content)
                : !HMConfigFileSanitizer::isAllowedDirective(name)) {
            std::abort();
        }
    }
    const std::optional<QByteArray> again = HMConfigFileSanitizer::sanitize(*copy, &error);
    if (!again || *again != *copy) {
        std::abort();
    }
    return 0;
}
