// Tunnel control's view of the account, kept by the account manager.
//
// The account manager announces a change as will-change / did-change of a key and then its
// property's signal with the new value; tunnel control also needs the old value of
// "currentCountry" and "loggedIn", so this adapter reads it at will-change and pairs it
// with the new one.
#pragma once

#include "HMVPNAccountSource.h"

class HMAccountManager;

class HMVPNAccountAdapter : public HMVPNAccountSource
{
    Q_OBJECT
public:
    explicit HMVPNAccountAdapter(HMAccountManager &account, QObject *parent = nullptr);

    QString vpnToken() const override;
    qint64 bandwidthAvailable() const override;
    bool shouldReconnect() const override;
    void setShouldReconnect(bool value) override;
    bool isLoggedIn() const override;
    QString currentCountry() const override;
    QString currentCountryCode() const override;
    QVariantMap closestServers() const override;
    void setCurrentClosestCountry(const QString &country) override;
    QVariantList vpnServers() const override;
    void setVpnServers(const QVariantList &servers) override;
    void loginGetToken(bool getToken, Completion completion) override;

private:
    HMAccountManager &m_account;
    QString m_countryBefore;
    bool m_loggedInBefore = false;
};
