// HMAppDelegate: reactions to the tunnel's state, the notification handlers that show
// windows, and the window commands.
#include "HMAppDelegate.h"

#include "HMAccountManager.h"
#include "HMImageView.h"
#include "HMLog.h"
#include "HMMainWindowController.h"
#include "HMMenuBarItemController.h"
#include "HMNotificationManager.h"
#include "HMPreferenceWindowController.h"
#include "HMScreenFactory.h"
#include "HMUtilityWindowController.h"
#include "HMVPNManager.h"
#include "HMVerifyEmailViewController.h"
#include "HMWisprouteManager.h"

#include <QApplication>
#include <QPointer>
#include <QTimer>
#include <QWidget>

void HMAppDelegate::vpnStateDidChange(VPNState oldState, VPNState newState)
{
    updateApplicationIcon();
    if (!m_c.account->isLoggedIn() || oldState == newState) {
        return;
    }
    // Only the two disconnect states count as "not secure": Connected to Error, Out of
    // Data or No Connection stays silent on purpose.
    if (oldState == VPNState::Connected &&
        (newState == VPNState::Disconnected || newState == VPNState::Disconnecting)) {
        sendNotification(QStringLiteral("Connection not secure"),
                         QStringLiteral("Your traffic is currently not encrypted"),
                         QStringLiteral("alert_angry"));
    } else if (newState == VPNState::Connected) {
        const QString closest = m_c.account->currentClosestCountry();
        const QString code = closest.isEmpty() ? m_c.account->currentCountry() : closest;
        QString name = m_c.countryName ? m_c.countryName(code) : QString();
        if (name.isEmpty() && !m_c.countryName) {
            name = code;
        }
        const QString text =
            m_c.routing->wisprouteMode() == HMWisprouteManager::ModeInclusion
                ? QStringLiteral("Rawrrr! You are tunneling select URLs to the ") + name
                : QStringLiteral("Rawrrr! You are now browsing in private from ") + name;
        sendNotification(QStringLiteral("Connection secure"), text,
                         m_c.countryImage ? m_c.countryImage(code) : QStringLiteral("alert_happy"));
    }
}

// The desktop has no dock: the rule that chose the dock icon chooses the windows' icon.
void HMAppDelegate::updateApplicationIcon()
{
    QString name;
    if (m_c.vpn->isConnected()) {
        name = m_c.routing->isEnabled() ? QStringLiteral("icon_wisproute_256x256")
                                        : QStringLiteral("icon_on_256x256");
    }
    if (name == m_iconName) {
        return;
    }
    m_iconName = name;
    QApplication::setWindowIcon(
        HMImageView::imageNamed(name.isEmpty() ? QStringLiteral("hollowmere") : name));
}

void HMAppDelegate::sendNotification(const QString &title, const QString &text,
                                     const QString &image)
{
    if (m_c.notifications) {
        m_c.notifications->sendNotificationWithTitle(title, text, image);
    }
}

void HMAppDelegate::showHMBlockedError()
{
    sendNotification(QStringLiteral("Hollowmere blocked"),
                     QStringLiteral("Hollowmere can't reach our servers, please contact your "
                                    "internet provider."),
                     QStringLiteral("alert_angry"));
}

void HMAppDelegate::doLogin()
{
    m_menuBarItem->showItem();
    // A sign-in made elsewhere (hollowmerectl) must not leave the sign-in window asking for
    // one. An unverified account gets the screen that asks for the verification; looked at
    // on the next turn, because the sign-in screen posts this before moving on to it itself.
    if (m_c.account->isAccountVerified()) {
        m_utilityWindow->closeWindow();
    } else {
        QPointer<HMAppDelegate> self(this);
        QTimer::singleShot(0, this, [self] {
            if (!self || !self->m_c.account->isLoggedIn() ||
                self->m_c.account->isAccountVerified() ||
                qobject_cast<HMVerifyEmailViewController *>(
                    self->m_utilityWindow->currentScreen())) {
                return;
            }
            self->m_utilityWindow->presentViewController(
                HMScreenFactory::createVerifyEmailScreen(*self->m_utilityWindow),
                self->m_utilityWindow->isWindowVisible() ? HMScreenPresenter::Animation::Slide
                                                         : HMScreenPresenter::Animation::None);
            self->m_utilityWindow->showWindow();
        });
    }
    if (m_mainWindow->isFallbackMode()) {
        m_mainWindow->showWindow();
    }
}

void HMAppDelegate::doLogout()
{
    m_menuBarItem->hideItem();
    m_mainWindow->window()->hide();
    m_utilityWindow->presentViewController(HMScreenFactory::createLoginScreen(*m_utilityWindow),
                                           m_utilityWindow->isWindowVisible()
                                               ? HMScreenPresenter::Animation::Slide
                                               : HMScreenPresenter::Animation::None);
    m_utilityWindow->showWindow();
}

void HMAppDelegate::didClickMenuBarIcon()
{
    if (m_mainWindow->isWindowVisible()) {
        m_mainWindow->closeWindow();
    } else {
        showMainWindow();
    }
}

void HMAppDelegate::applicationStateChanged(Qt::ApplicationState state)
{
    if (state == Qt::ApplicationActive) {
        // The application only becomes active because the user gave one of its windows the
        // focus, so nothing here may take that focus away: the other open windows are
        // brought forward in the stacking order only (never activated), and the window the
        // user picked is put back on top of them.
        QWidget *picked = QApplication::activeWindow();
        // The preferences window exists only once it has been opened.
        QWidget *preferences = m_preferences ? m_preferences->window() : nullptr;
        for (QWidget *window : {m_utilityWindow->window(), preferences}) {
            if (window && window != picked && window->isVisible() && !window->isMinimized()) {
                window->raise();
            }
        }
        if (picked) {
            picked->raise();
        }
    } else if (state == Qt::ApplicationInactive && !m_mainWindow->isFallbackMode()) {
        // The popup panel goes away with the focus. The tray-less window is an ordinary one,
        // and the utility and preferences windows are left where they are: a desktop has no
        // notion of hiding an application's windows when it loses the focus.
        m_mainWindow->closeWindow();
    }
}

void HMAppDelegate::raise()
{
    HMLogError(QStringLiteral("Raised by a second launch"));
    reopen();
}

void HMAppDelegate::reopen()
{
    if (!m_launched) {
        // Still waiting for the keyring: its unlock prompt is what is on screen.
        return;
    }
    if (!m_menuBarItem->isItemShown()) {
        // Signed out there is no panel to toggle: the utility window is the way in.
        m_utilityWindow->showWindow();
        return;
    }
    // The tray-less window is an ordinary window: one buried under others counts as closed,
    // so reopening brings it forward instead of minimising what the user cannot see.
    if (m_mainWindow->isFallbackMode() && m_mainWindow->isWindowVisible() &&
        !m_mainWindow->window()->isActiveWindow()) {
        showMainWindow();
        return;
    }
    didClickMenuBarIcon();
}

void HMAppDelegate::showMainWindow()
{
    m_mainWindow->showWindowAt(m_menuBarItem->anchorPoint());
}

void HMAppDelegate::hideMainWindow()
{
    m_mainWindow->closeWindow();
}

void HMAppDelegate::hideUtilWindow()
{
    m_utilityWindow->closeWindow();
}

void HMAppDelegate::hidePreferenceWindow()
{
    if (m_preferences) {
        m_preferences->closeWindow();
    }
}

void HMAppDelegate::showPreferencesGeneral()
{
    m_mainWindow->closeWindow();
    preferenceWindowController()->showTab(HMPreferenceWindowController::Tab::General);
}

void HMAppDelegate::showPreferencesWisproute()
{
    preferenceWindowController()->showTab(HMPreferenceWindowController::Tab::Wisproute);
}

void HMAppDelegate::showPreferencesAccount()
{
    preferenceWindowController()->showTab(HMPreferenceWindowController::Tab::Account);
}

void HMAppDelegate::showDiagnostics()
{
    m_mainWindow->closeWindow();
    m_utilityWindow->presentViewController(
        HMScreenFactory::createDiagnosticsScreen(*m_utilityWindow),
        HMScreenPresenter::Animation::None);
    m_utilityWindow->showWindow();
}
