// Reads a file that a client named, with the client's own rights instead of root's: a child
// process takes on the peer's user and groups, opens the path refusing symbolic links in any
// component, and accepts only a regular file of bounded size owned by the peer or by root.
// So a request can never make the helper read something its sender could not read.
#pragma once

#include "HMPeerCredentials.h"

#include <QByteArray>
#include <QString>
#include <optional>

class HMPeerFileReader
{
public:
    static std::optional<QByteArray> read(const QString &path, const HMPeerCredentials &peer,
                                          qint64 maxSize, QString *error);
};
