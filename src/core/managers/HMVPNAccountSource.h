// What the VPN manager and the connection sequence need from the signed-in account.
//
// The account manager owns all account data; tunnel control reads and writes the few
// fields below and reacts to three of them changing. Going through this narrow seam keeps
// tunnel control testable on recorded management transcripts without a keyring or a
// service. HMVPNAccountAdapter connects it to the real account manager.
#pragma once

#include "HMError.h"

#include <QObject>
#include <QVariantList>
#include <QVariantMap>
#include <functional>

class HMVPNAccountSource : public QObject
{
    Q_OBJECT
public:
    using Completion = std::function<void(const HMMaybeError &)>;

    using QObject::QObject;
    ~HMVPNAccountSource() override = default;

    virtual QString vpnToken() const = 0;
    // The allowance as the service last reported it, in bytes.
    virtual qint64 bandwidthAvailable() const = 0;
    virtual bool shouldReconnect() const = 0;
    virtual void setShouldReconnect(bool value) = 0;
    virtual bool isLoggedIn() const = 0;
    virtual QString currentCountry() const = 0;
    // The chosen country's id; "-1" means "Closest".
    virtual QString currentCountryCode() const = 0;
    // Server groups for the closest-server test (group key -> list of server records);
    // empty when the service sent none.
    virtual QVariantMap closestServers() const = 0;
    virtual void setCurrentClosestCountry(const QString &country) = 0;
    // The servers the helper's start request names, in order.
    virtual QVariantList vpnServers() const = 0;
    virtual void setVpnServers(const QVariantList &servers) = 0;
    // Signs in again with the stored credentials; with `getToken` the VPN token is renewed.
    // The completion runs on the main thread.
    virtual void loginGetToken(bool getToken, Completion completion) = 0;

Q_SIGNALS:
    void currentCountryChanged(const QString &oldValue, const QString &newValue);
    void loggedInChanged(bool oldValue, bool newValue);
    void bandwidthAvailableChanged(qint64 newValue);
};
