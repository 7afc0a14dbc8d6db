// The tray icon's view: 23 by 22, filled by the HMImageView that shows (and animates) the
// icon. The tray shows whatever image this view holds; a press on the view itself (where
// it is shown in a window) counts as a click on the tray icon.
#pragma once

#include <QWidget>

class HMClock;
class HMImageView;
class HMNotificationCenter;

class HMMenuBarItemView : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kWidth = 23;
    static constexpr int kHeight = 22;

    HMMenuBarItemView(HMNotificationCenter &center, HMClock *clock, QWidget *parent = nullptr);

    HMImageView *iconImage() const { return m_iconImage; }
    QSize sizeHint() const override { return {kWidth, kHeight}; }

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    HMNotificationCenter &m_center;
    HMImageView *m_iconImage;
};
