// The helper's connection loop: one request per connection, served one at a time. For each
// connection it reads the peer's credentials first and turns away anyone who is neither
// root nor in the helper's group without reading a byte from them; then it reads one
// bounded frame before a deadline, decodes it with a tight nesting limit, lets
// HMHelperService answer, and writes the reply frame. Between connections it reaps finished
// children.
#pragma once

#include "HMHelperConfig.h"

#include <QByteArray>
#include <QCborMap>

class HMHelperLog;
class HMHelperService;

class HMHelperServer
{
public:
    // A request is at most a dictionary, in it "params", in that "daemonConfig".
    static constexpr int kMaxNesting = 4;

    HMHelperServer(const HMHelperConfig &config, HMHelperLog &log, HMHelperService &service);

    // Serves connections on the listening socket until "suicide"; the process exit code.
    int run(int listener);
    // Serves one accepted connection and closes it; true when the helper should exit.
    bool serve(int connection);

private:
    void reply(int connection, const QCborMap &message);
    static void reapChildren();

    HMHelperConfig m_config;
    HMHelperLog &m_log;
    HMHelperService &m_service;
};
