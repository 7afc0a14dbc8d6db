// Re-emits the content of an inline block (<ca>, <tls-crypt>, ...) in the only characters its
// format needs: PEM armour with base64 lines, the static-key armour with hex lines, or bare
// base64 for <pkcs12>. Text around the armour (comments, "openssl x509 -text" dumps) is
// dropped; anything else is refused. The result's lines are short and start with '-' or a
// base64/hex character, so nothing in a checked block can close it or open another.
#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

class HMInlineMaterial
{
public:
    static constexpr int kLineWidth = 64;

    // The block's lines for OpenVPN (each ending in '\n'), or nullopt with the reason.
    static std::optional<QByteArray> reemit(const QByteArray &tag, const QList<QByteArray> &lines,
                                            QString *error);
};
