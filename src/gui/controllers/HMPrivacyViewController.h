// The Privacy tab of the preferences window: the filter's switches and what it blocked.
//
// The master switch and the three social-network switches act through HMPrivacyManager;
// they are usable only while the tunnel is connected, because the service applies them to
// the running connection. While selective routing sends only listed domains through the
// tunnel (mode 2) the filter cannot see the rest of the traffic, so the switches are
// disabled and a notice replaces the counters. The counters (three social networks, then
// one list per category with its icon, most recent first, each with its count) follow the
// manager live.
//
// Collaborators: the privacy manager, the routing manager (its mode) and, when given, the
// VPN manager (its "connected"); without one, whoever owns the pane calls
// vpnConnectedDidChange().
#pragma once

#include <QWidget>
#include <memory>

namespace Ui {
class HMPrivacyViewController;
}
class HMPrivacyManager;
class HMVPNManager;
class HMWisprouteManager;
class QTreeWidgetItem;

class HMPrivacyViewController : public QWidget
{
    Q_OBJECT
public:
    HMPrivacyViewController(HMPrivacyManager &privacy, HMWisprouteManager &routing,
                            HMVPNManager *vpn = nullptr, QWidget *parent = nullptr);
    ~HMPrivacyViewController() override;

    void vpnConnectedDidChange(bool connected);

    // The icon a category node names ("privacy_icon_analytics", "privacy_icon_ad"); a null
    // icon for an unknown name.
    static QIcon iconNamed(const QString &name);

private:
    void updateSwitches();
    void updateCounters();
    void updateBlockedContent();

    std::unique_ptr<Ui::HMPrivacyViewController> m_ui;
    HMPrivacyManager &m_privacy;
    HMWisprouteManager &m_routing;
    bool m_connected = false;
};
