#include "HMMenuBarItemController.h"

#include "HMAccountManager.h"
#include "HMFormatting.h"
#include "HMImageView.h"
#include "HMMenuBarItemView.h"
#include "HMNotificationCenter.h"
#include "HMTrayHostWatcher.h"
#include "HMVPNManager.h"
#include "HMWisprouteManager.h"

#include <QActionGroup>
#include <QCursor>
#include <QGuiApplication>
#include <QMenu>
#include <QScreen>
#include <QSystemTrayIcon>

const QString HMMenuBarItemController::kDidClickNotification =
    QStringLiteral("HMDidClickMenuBarIconNotification");
const QString HMMenuBarItemController::kDidMoveNotification =
    QStringLiteral("HMMenuBarIconDidMoveNotification");

namespace {
constexpr double kConnectingPassSeconds = 0.8;
constexpr unsigned long kConnectingFrames = 16;
} // namespace

HMMenuBarItemController::HMMenuBarItemController(const Collaborators &collaborators,
                                                 QObject *parent)
    : QObject(parent), m_c(collaborators)
{
    Q_ASSERT(m_c.vpn && m_c.routing && m_c.center);
    buildMenu();
    if (m_c.hostWatcher) {
        connect(m_c.hostWatcher, &HMTrayHostWatcher::hostChanged, this, [this](bool hasHost) {
            if (hasHost && m_view) {
                createTrayIcon();
            }
        });
    }
}

HMMenuBarItemController::~HMMenuBarItemController()
{
    hideItem();
    delete m_menu;
}

void HMMenuBarItemController::buildMenu()
{
    m_menu = new QMenu();
    m_menu->setAccessibleName(QStringLiteral("Hollowmere menu"));
    // GNOME opens this menu on a left click, so the panel must be its first entry.
    connect(m_menu->addAction(tr("Open Hollowmere")), &QAction::triggered, this,
            &HMMenuBarItemController::openPanelRequested);
    m_menu->addSeparator();
    m_switchAction = m_menu->addAction(tr("Connect"));
    connect(m_switchAction, &QAction::triggered, this, [this] {
        const VPNState state = m_c.vpn->state();
        if (state == VPNState::Connected || state == VPNState::Connecting) {
            m_c.vpn->disconnect();
        } else {
            m_c.vpn->connect();
        }
    });
    m_countryMenu = m_menu->addMenu(tr("Country"));
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("Preferences…")), &QAction::triggered, this,
            &HMMenuBarItemController::preferencesRequested);
    connect(m_menu->addAction(tr("Diagnostics…")), &QAction::triggered, this,
            &HMMenuBarItemController::diagnosticsRequested);
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("Quit Hollowmere")), &QAction::triggered, this,
            &HMMenuBarItemController::quitRequested);
    connect(m_menu, &QMenu::aboutToShow, this, &HMMenuBarItemController::refreshMenu);
    refreshMenu();
}

void HMMenuBarItemController::refreshMenu()
{
    const VPNState state = m_c.vpn->state();
    const bool on = state == VPNState::Connected || state == VPNState::Connecting;
    m_switchAction->setText(on ? tr("Disconnect") : tr("Connect"));
    m_switchAction->setEnabled(on || m_c.vpn->canConnect());

    m_countryMenu->clear();
    const bool signedIn = m_c.account && m_c.account->isLoggedIn();
    m_countryMenu->setEnabled(signedIn);
    if (!signedIn) {
        return;
    }
    auto *group = new QActionGroup(m_countryMenu);
    const QString current = m_c.account->currentCountry();
    for (const QVariant &record : m_c.account->countries()) {
        const QString code = record.toMap().value(QStringLiteral("code")).toString();
        const QString name = m_c.countryName ? m_c.countryName(code) : QString();
        QAction *action = m_countryMenu->addAction(name.isEmpty() ? code : name);
        action->setCheckable(true);
        action->setChecked(code == current);
        group->addAction(action);
        connect(action, &QAction::triggered, this,
                [this, code] { m_c.account->setCurrentCountry(code); });
    }
}

void HMMenuBarItemController::showItem()
{
    if (m_view) {
        return;
    }
    m_view = new HMMenuBarItemView(*m_c.center, m_c.clock);
    connect(m_view->iconImage(), &HMImageView::imageChanged, this, [this](const QString &name) {
        if (m_trayIcon) {
            m_trayIcon->setIcon(m_view->iconImage()->image());
        }
        Q_EMIT iconChanged(name);
    });
    setIconForState(m_c.vpn->state());
    if (!m_c.hostWatcher || m_c.hostWatcher->hasHost()) {
        createTrayIcon();
    }
    startKVO();
}

void HMMenuBarItemController::hideItem()
{
    if (!m_view) {
        return;
    }
    stopKVO();
    dropTrayIcon();
    delete m_view;
    m_view = nullptr;
}

void HMMenuBarItemController::createTrayIcon()
{
    if (m_trayIcon) {
        return;
    }
    m_trayIcon = new QSystemTrayIcon(m_view->iconImage()->image(), this);
    m_trayIcon->setToolTip(QStringLiteral("Hollowmere"));
    m_trayIcon->setContextMenu(m_menu);
    connect(m_trayIcon, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) {
                    // On X11 the pointer is on the icon at this moment: the best anchor
                    // the tray protocol gives us.
                    if (QGuiApplication::platformName() == QLatin1String("xcb")) {
                        const QPoint before = m_lastActivation;
                        m_lastActivation = QCursor::pos();
                        if (!before.isNull() && before != m_lastActivation) {
                            menuBarItemDidMove();
                        }
                    }
                    m_c.center->postNotificationName(kDidClickNotification);
                }
            });
    m_trayIcon->show();
}

void HMMenuBarItemController::dropTrayIcon()
{
    delete m_trayIcon;
    m_trayIcon = nullptr;
}

void HMMenuBarItemController::menuBarItemDidMove()
{
    m_c.center->postNotificationName(kDidMoveNotification);
}

QPoint HMMenuBarItemController::anchorPoint() const
{
    const QRect geometry = m_trayIcon ? m_trayIcon->geometry() : QRect();
    if (geometry.isValid() && !geometry.isEmpty()) {
        return {geometry.x() + geometry.width() / 2, geometry.y() + geometry.height()};
    }
    if (!m_lastActivation.isNull()) {
        return m_lastActivation;
    }
    // Wayland tells no one where the icon is: hang the panel from the top-right corner.
    const QScreen *screen = QGuiApplication::primaryScreen();
    const QRect area = screen ? screen->availableGeometry() : QRect(0, 0, 1024, 768);
    return {area.right() - 16, area.top()};
}

void HMMenuBarItemController::startKVO()
{
    m_kvo << connect(m_c.vpn, &HMVPNManager::stateChanged, this,
                     [this](VPNState oldState, VPNState newState) {
                         if (oldState != newState) {
                             setIconForState(newState);
                         }
                     });
    m_kvo << connect(m_c.routing, &HMWisprouteManager::wisprouteModeChanged, this,
                     [this] { setIconForState(m_c.vpn->state()); });
}

void HMMenuBarItemController::stopKVO()
{
    for (const QMetaObject::Connection &connection : std::as_const(m_kvo)) {
        disconnect(connection);
    }
    m_kvo.clear();
}

QString HMMenuBarItemController::currentIconName() const
{
    return m_view ? m_view->iconImage()->imageName() : QString();
}

void HMMenuBarItemController::setIconForState(VPNState state)
{
    if (!m_view) {
        return;
    }
    HMImageView *icon = m_view->iconImage();
    icon->stopAnimating();
    switch (state) {
    case VPNState::Disconnected:
    case VPNState::Disconnecting: // deliberately the off icon, not the animation
    case VPNState::Error:
        icon->setImage(QStringLiteral("mb_ico_off"));
        break;
    case VPNState::Connected:
        icon->setImage(m_c.routing->isEnabled() ? QStringLiteral("mb_ico_wisproute")
                                                : QStringLiteral("mb_ico_connected_alternate"));
        break;
    case VPNState::Connecting:
        icon->setAnimationImages(
            make_frames(QStringLiteral("mb_ico_connecting_"), kConnectingFrames, false));
        icon->setAnimationDuration(kConnectingPassSeconds);
        icon->setAnimationRepeatCount(0);
        icon->startAnimating();
        break;
    case VPNState::OutOfData:
    case VPNState::NoConnection:
        icon->setImage(QStringLiteral("mb_ico_disabled"));
        break;
    }
}
