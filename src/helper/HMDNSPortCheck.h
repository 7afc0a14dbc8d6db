// Whether the DNS proxy can run here: its executable is installed where the helper trusts
// it, and it could listen where it has to, 127.0.0.1 port 53, over UDP and TCP. Another
// resolver already holding the port (a local caching daemon, for instance) or a missing or
// writable-by-others proxy makes selective routing unavailable, which the application learns
// from "checkDNSPortOpen" and then builds the full-tunnel OpenVPN form.
#pragma once

#include <QString>

class HMDNSPortCheck
{
public:
    // Empty when the proxy at proxyPath is trusted and both binds succeed; otherwise why not.
    static QString check(const QString &proxyPath, quint16 port = 53);
    // Only the two binds.
    static QString checkPort(quint16 port);
};
