// The proxy's log (-log): one line per event, "2026-01-31 12:00:00 message", written at once
// so that a line is never lost when the proxy is killed. Level 0 has start, stop, routes set
// up and every refusal; -debug 1 adds one line per query and its way; 2 adds each route.
#pragma once

#include <cstdio>
#include <string>

class HMProxyLog
{
public:
    HMProxyLog() = default;
    ~HMProxyLog();
    HMProxyLog(const HMProxyLog &) = delete;
    HMProxyLog &operator=(const HMProxyLog &) = delete;

    // Appends to path; false with the reason when it cannot be opened.
    bool open(const std::string &path, int level, std::string *error);
    void write(const std::string &line);
    void debug(int level, const std::string &line)
    {
        if (m_level >= level) {
            write(line);
        }
    }
    int level() const { return m_level; }

private:
    std::FILE *m_file = nullptr;
    int m_level = 0;
};
