#include "HMMenuBarItemView.h"

#include "HMImageView.h"
#include "HMMenuBarItemController.h"
#include "HMNotificationCenter.h"

#include <QMouseEvent>

HMMenuBarItemView::HMMenuBarItemView(HMNotificationCenter &center, HMClock *clock, QWidget *parent)
    : QWidget(parent), m_center(center), m_iconImage(new HMImageView(this, clock))
{
    resize(kWidth, kHeight);
    setAccessibleName(QStringLiteral("Hollowmere"));
    m_iconImage->setGeometry(rect());
}

void HMMenuBarItemView::mousePressEvent(QMouseEvent *event)
{
    event->accept();
    m_center.postNotificationName(HMMenuBarItemController::kDidClickNotification);
}

void HMMenuBarItemView::resizeEvent(QResizeEvent *)
{
    m_iconImage->setGeometry(rect());
}
