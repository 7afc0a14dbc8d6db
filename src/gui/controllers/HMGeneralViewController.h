// The General preferences: desktop notifications, launch at login, TCP only, and an
// operator's own OpenVPN configuration file.
//
// Notifications, TCP and the configuration file are preferences ("notificationsEnabled",
// "vpnForceTCP", "vpnConfigFile"); launch at login is the session's autostart entry and
// comes through the context (its check box is disabled when the context has none). The
// check boxes are re-read each time the pane is shown, so changes made elsewhere (the
// control interface, the desktop's autostart settings) are not overwritten.
#pragma once

#include "HMScreenContext.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMGeneralViewController;
}

class HMGeneralViewController : public QWidget
{
    Q_OBJECT

public:
    explicit HMGeneralViewController(const HMScreenContext &context, QWidget *parent = nullptr);
    ~HMGeneralViewController() override;

    // Stores the opposite of the stored choice, whatever the box showed.
    void didPressShowNotifications();
    void didPressLaunchAtLogin();
    void didPressForceTCP();
    // Takes a configuration file; an unreadable one is refused with a message.
    void chooseConfigFile(const QString &path);
    void didPressChooseConfigFile();
    void didPressClearConfigFile();

protected:
    void showEvent(QShowEvent *event) override;

private:
    void reload();

    HMScreenContext m_context;
    std::unique_ptr<Ui::HMGeneralViewController> m_ui;
};
