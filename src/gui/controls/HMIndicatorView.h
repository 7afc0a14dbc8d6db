// The small state indicator beside the status line.
//
// It draws the picture named by the status display ("indicator_connected",
// "indicator_connecting", "indicator_wisproute", "indicator_disconnected",
// "indicator_error") as vector shapes, so it is sharp at any scale, and plays the two
// animations of the display: the spinner (a quarter turn backwards every 0.2 s, without
// end) and the pulse (a 3-second breath of opacity, 1.0 -> 0.4 from 0.4 s for 1.2 s, back
// to 1.0 from 1.6 s for 1.4 s). The animations run only while the indicator is on screen:
// a connected tunnel with selective routing would otherwise wake the process sixty times
// a second with the panel closed.
#pragma once

#include <QWidget>

class QVariantAnimation;

class HMIndicatorView : public QWidget
{
    Q_OBJECT

public:
    explicit HMIndicatorView(QWidget *parent = nullptr);

    QString imageName() const { return m_imageName; }
    void setImageName(const QString &name);

    // Whether an animation is on, also while it waits for the indicator to be shown.
    void startSpinner();
    void stopSpinner();
    bool isSpinning() const { return m_wantSpinner; }
    void startPulse();
    void stopPulse();
    bool isPulsing() const { return m_wantPulse; }
    // Whether an animation is running now (never while hidden).
    bool isAnimating() const;

    QSize sizeHint() const override { return {18, 18}; }

protected:
    void paintEvent(QPaintEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void runWantedAnimations();

    QString m_imageName;
    qreal m_angle = 0.0;
    qreal m_opacity = 1.0;
    QVariantAnimation *m_spinner;
    QVariantAnimation *m_pulse;
    bool m_wantSpinner = false;
    bool m_wantPulse = false;
};
