// The "old television" effect the status display plays when the tunnel goes off.
//
// An overlay on top of the display: a bright veil fades out over 0.6 s (ease in) while a
// light band, in a 0.8 s run, fades in over 0.3 s, dims to 0.295 from 0.3 s for 0.3 s,
// squashes to 5 % of the height in the first 0.3 s (ease out) and then shrinks to nothing
// across from 0.3 s for 0.5 s. It hides itself at the end and ignores the mouse.
#pragma once

#include <QWidget>

class QVariantAnimation;

class HMSwitchOffEffect : public QWidget
{
    Q_OBJECT

public:
    explicit HMSwitchOffEffect(QWidget *parent);

    void start();
    void stop();
    bool isRunning() const;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    qreal m_elapsedMs = 0.0;
    QVariantAnimation *m_run;
};
