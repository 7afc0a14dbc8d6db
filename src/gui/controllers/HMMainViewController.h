// The content of the main panel: the status display, the country picker, the tunnel's
// switch and the way to the preferences, the diagnostics and out of the application.
//
// Switching on asks the VPN manager to connect; switching off disconnects and posts
// "HMDidSwitchDialOffNotification" (the privacy counters reset on it). The picker lists
// the account's countries in the account's order and stores the choice; while connected
// the VPN manager itself reconnects to the new country. The account's usage is refreshed
// while the panel is on screen, and not otherwise.
#pragma once

#include "HMScreenContext.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMMainViewController;
}
class HMDisplayViewController;

class HMMainViewController : public QWidget
{
    Q_OBJECT

public:
    explicit HMMainViewController(const HMScreenContext &context, QWidget *parent = nullptr);
    ~HMMainViewController() override;

    HMDisplayViewController *displayViewController() const { return m_display; }

    void didSwitchDial(bool on);
    void didChooseCountry(int index);

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void reloadCountries();
    void updateDial();

    HMScreenContext m_context;
    std::unique_ptr<Ui::HMMainViewController> m_ui;
    HMDisplayViewController *m_display;
};
