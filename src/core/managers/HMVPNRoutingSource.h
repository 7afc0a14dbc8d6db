// The two facts about selective routing that tunnel control needs: whether the DNS proxy can
// run at all here, and which mode the user chose. HMVPNRoutingAdapter reads them from the
// selective-routing manager.
#pragma once

class HMVPNRoutingSource
{
public:
    virtual ~HMVPNRoutingSource() = default;

    virtual bool isSupported() const = 0;
    virtual int wisprouteMode() const = 0;
};
