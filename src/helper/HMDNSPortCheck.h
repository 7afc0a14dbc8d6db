// Whether the DNS proxy could listen where it has to: 127.0.0.1 port 53, over UDP and TCP.
// Another resolver already holding the port (a local caching daemon, for instance) makes
// selective routing unavailable, which the application learns from "checkDNSPortOpen".
#pragma once

#include <QString>

class HMDNSPortCheck
{
public:
    // Empty when both binds succeed; otherwise which one failed and why.
    static QString check(quint16 port = 53);
};
