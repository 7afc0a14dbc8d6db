// The tray item: the client's permanent presence on the desktop.
//
// The icon follows the tunnel's state and the selective-routing switch (setIconForState),
// animating while connecting. It is a StatusNotifierItem made by QSystemTrayIcon, and made
// only once the desktop has a tray host (HMTrayHostWatcher): Qt settles once per process
// whether its tray goes over D-Bus, so an icon made too early would never appear. Until a
// host exists, and on desktops without one, hasTrayIcon() is false and the application
// falls back to its window. The menu: open the panel, switch on/off, country, preferences,
// diagnostics, quit. Activating the icon posts "HMDidClickMenuBarIconNotification";
// anchorPoint() says where the main panel should hang from.
#pragma once

#include "HMMenuBarItemView.h"
#include "HMVPNState.h"

#include <QObject>
#include <QPoint>
#include <QPointer>
#include <functional>

class HMAccountManager;
class HMClock;
class HMNotificationCenter;
class HMTrayHostWatcher;
class HMVPNManager;
class HMWisprouteManager;
class QAction;
class QMenu;
class QSystemTrayIcon;

class HMMenuBarItemController : public QObject
{
    Q_OBJECT
public:
    static const QString kDidClickNotification; // "HMDidClickMenuBarIconNotification"
    static const QString kDidMoveNotification;  // "HMMenuBarIconDidMoveNotification"

    struct Collaborators
    {
        HMVPNManager *vpn = nullptr;
        HMWisprouteManager *routing = nullptr;
        HMAccountManager *account = nullptr; // the country menu; none without it
        HMNotificationCenter *center = nullptr;
        HMClock *clock = nullptr; // the animation's; the system clock when null
        HMTrayHostWatcher *hostWatcher = nullptr;
        std::function<QString(const QString &code)> countryName; // the code itself when empty
    };

    explicit HMMenuBarItemController(const Collaborators &collaborators, QObject *parent = nullptr);
    ~HMMenuBarItemController() override;

    void showItem();
    void hideItem();
    bool isItemShown() const { return m_view != nullptr; }
    bool hasTrayIcon() const { return m_trayIcon != nullptr; }
    QPoint anchorPoint() const;
    void setIconForState(VPNState state);

    HMMenuBarItemView *menuBarItemView() const { return m_view; }
    QSystemTrayIcon *menuBarItem() const { return m_trayIcon; }
    QMenu *menu() const { return m_menu; }
    // The image the icon shows now (a frame name while animating).
    QString currentIconName() const;

Q_SIGNALS:
    void openPanelRequested();
    void preferencesRequested();
    void diagnosticsRequested();
    void quitRequested();
    void iconChanged(const QString &name);

private:
    void buildMenu();
    void refreshMenu();
    void createTrayIcon();
    void dropTrayIcon();
    void startKVO();
    void stopKVO();
    void menuBarItemDidMove();

    Collaborators m_c;
    QPointer<HMMenuBarItemView> m_view;
    QSystemTrayIcon *m_trayIcon = nullptr;
    QMenu *m_menu = nullptr;
    QMenu *m_countryMenu = nullptr;
    QAction *m_switchAction = nullptr;
    QList<QMetaObject::Connection> m_kvo;
    QPoint m_lastActivation;
};
