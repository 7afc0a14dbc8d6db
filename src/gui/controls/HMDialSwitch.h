// The big on/off switch of the main panel.
//
// A checkable button that paints itself as a slide switch: it toggles with a click, the
// space bar or Return, shows keyboard focus, and slides its knob in 150 ms. Only the
// user's presses reach `clicked(bool)`; the panel sets the checked state from the tunnel's
// state with setChecked(), which never counts as a press.
#pragma once

#include <QAbstractButton>
#include <QColor>

class QVariantAnimation;

class HMDialSwitch : public QAbstractButton
{
    Q_OBJECT

public:
    explicit HMDialSwitch(QWidget *parent = nullptr);

    // The colour of the "on" track (full tunnel or selective routing).
    void setOnColor(const QColor &color);

    QSize sizeHint() const override { return {104, 52}; }

protected:
    void paintEvent(QPaintEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void checkStateSet() override;
    void nextCheckState() override;

private:
    void slideKnob();

    QColor m_onColor;
    qreal m_knob = 0.0; // 0 off, 1 on
    QVariantAnimation *m_slide;
};
