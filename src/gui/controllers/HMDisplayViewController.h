// The top of the main panel: whether the tunnel is on, the state indicator, and the
// account line with its data bar.
//
// Follows the VPN manager's state and allowance, the account's plan, the API client's
// root health and the selective-routing mode, and re-derives everything from them on each
// change (every handler also runs once at construction). Three looks: on, on with
// selective routing, and off; going from on to off plays the switch-off effect. The status
// line is announced to assistive technology when its text changes, and clicking it while
// selective routing is on opens that pane.
#pragma once

#include "HMScreenContext.h"
#include "HMVPNState.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMDisplayViewController;
}
class HMSwitchOffEffect;

class HMDisplayViewController : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)

public:
    explicit HMDisplayViewController(const HMScreenContext &context, QWidget *parent = nullptr);
    ~HMDisplayViewController() override;

    // "Wisproute On" while connected with selective routing, else the state's own text.
    QString status() const;

    bool isOn() const { return m_on; }
    void setOn(bool on);
    // Applies one of the three looks (background, logo, colours).
    void setDisplayStateIsOn(bool on);
    void setIndicatorForState(VPNState state);
    void updateAccountInfoDisplay();
    void didPressStatus();

    // The artwork names of the current look ("scr_on_wisproute", "scr_on_logo", ...).
    QString backgroundName() const { return m_backgroundName; }
    QString logoName() const { return m_logoName; }
    bool isPlayingSwitchOff() const;

Q_SIGNALS:
    void statusChanged(const QString &status);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void stateDidChange();
    void wisprouteModeDidChange();
    void announceStatus();

    HMScreenContext m_context;
    std::unique_ptr<Ui::HMDisplayViewController> m_ui;
    HMSwitchOffEffect *m_switchOff;
    bool m_on = false;
    bool m_lookIsOn = false;
    QString m_backgroundName;
    QString m_logoName;
    QString m_announcedStatus;
};
