// The OpenVPN argument lists the helper agrees to run. A client may only send one of the
// exact shapes the application builds: a fixed head, one of three bodies (an operator's
// configuration file, or one of the two built-in option sets) and "--remote host port proto"
// triples with checked values. Everything else is refused with the reason.
//
// What actually runs differs on purpose: the management interface becomes a Unix socket
// that only the requesting user may use (HMOpenVPNController prepares its directory), "--cd"
// becomes the helper's own resource directory, the log goes to the helper's log directory, the lone
// word "system" after
// "--script-security <n>" is dropped (OpenVPN 2.6 refuses the old two-word form that the
// application still sends), "--daemon" is dropped because the helper detaches OpenVPN itself
// and keeps it as its own child (so it knows the moment it dies), a configuration file is
// replaced by its sanitised copy, and the helper's own options come last so that nothing
// before them can override them. The up/down scripts learn the helper's run directory from
// HM_STATE_DIR, where they keep what they must restore.
#pragma once

#include "HMHelperConfig.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

class HMOpenVPNArguments
{
public:
    enum class Body
    {
        ConfigFile,
        SelectiveRouting,
        FullTunnel
    };

    struct Remote
    {
        QString host;
        QString port;
        QString protocol;
    };

    struct Launch
    {
        Body body = Body::FullTunnel;
        // The operator's file as the client named it (Body::ConfigFile only).
        QString configFile;
        QList<Remote> remotes;
    };

    // Where OpenVPN's management interface listens and the one user it accepts there.
    struct Management
    {
        QString socketPath;
        QString user;
    };

    static constexpr int kMaxRemotes = 64;

    // Checks the client's list; resourceDir is the helper's own, which "--cd" must name.
    static std::optional<Launch> parse(const QStringList &arguments, const QString &resourceDir,
                                       QString *error);
    // The list OpenVPN is started with. sanitisedConfig replaces the operator's file.
    static QStringList build(const Launch &launch, const HMHelperConfig &config,
                             const Management &management,
                             const QString &sanitisedConfig = QString());

    static bool isValidHost(const QString &host);
    static bool isValidPort(const QString &port);
};
