#include "HMDataBar.h"

#include <QPainter>
#include <QPainterPath>
#include <cmath>

HMDataBar::HMDataBar(QWidget *parent) : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setMinimumHeight(6);
    setAccessibleName(tr("Data remaining"));
}

void HMDataBar::setProgress(double progress)
{
    m_progress = progress;
    setAccessibleDescription(tr("%1 percent").arg(qRound(drawnFraction() * 100)));
    update();
}

double HMDataBar::drawnFraction() const
{
    if (!std::isfinite(m_progress)) {
        return 0.0;
    }
    return std::clamp(m_progress, 0.0, 1.0);
}

void HMDataBar::setColors(const QColor &background, const QColor &foreground)
{
    m_background = background;
    m_foreground = foreground;
    update();
}

void HMDataBar::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    const qreal radius = track.height() / 2;
    painter.setPen(Qt::NoPen);
    painter.setBrush(m_background);
    painter.drawRoundedRect(track, radius, radius);
    const double fraction = drawnFraction();
    if (fraction > 0) {
        QRectF filled = track;
        filled.setWidth(std::max(track.height(), track.width() * fraction));
        QPainterPath clip;
        clip.addRoundedRect(track, radius, radius);
        painter.setClipPath(clip);
        painter.setBrush(m_foreground);
        painter.drawRoundedRect(filled, radius, radius);
    }
}
