// The OpenVPN argument lists the application sends and the helper agrees to run.
//
// One definition for both sides of the socket: the application builds its start requests
// from these forms and the helper accepts nothing else, so the two can never drift apart.
// Several entries look wrong and are not: "--script-security" takes the old two words "3"
// "system" (the helper drops "system" for OpenVPN 2.6), each script name carries its flags
// inside one argument, and with selective routing the tunnel gets the local DNS proxy as its
// only name server and no default-route redirection, because the proxy steers the traffic.
#pragma once

#include <QString>
#include <QStringList>

namespace HMOpenVPNArgumentForms {

enum class Body
{
    SelectiveRouting,
    FullTunnel
};

// Where OpenVPN writes its log; the helper returns it to the application.
QString vpnLogPath();

// OpenVPN's management interface is not the TCP port the head names: the helper gives each
// user a directory of their own below this one (reachable by that user alone) and has OpenVPN
// listen on a Unix socket in it, open to that user alone.
QString managementDirectory();
// The socket a user's OpenVPN listens on, below the given management directory.
QString managementSocketPath(const QString &directory, uint uid);

// "--cd <resourceDirectory>" followed by the management options: seven strings.
QStringList head(const QString &resourceDirectory);

// The built-in option set: 40 strings with selective routing, 45 for the full tunnel.
QStringList body(Body body);

} // namespace HMOpenVPNArgumentForms
