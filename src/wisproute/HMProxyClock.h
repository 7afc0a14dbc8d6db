// Time as the DNS proxy sees it: one monotonic reading in milliseconds. Host routes expire
// and upstream queries time out against it, so tests step a manual clock through a route's
// whole life instead of waiting minutes.
#pragma once

#include <cstdint>
#include <ctime>

class HMProxyClock
{
public:
    virtual ~HMProxyClock() = default;
    virtual int64_t nowMs() const = 0;
};

class HMProxySystemClock : public HMProxyClock
{
public:
    int64_t nowMs() const override
    {
        struct timespec ts
        {
        };
        ::clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    }
};
