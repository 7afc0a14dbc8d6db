#include "HMDialSwitch.h"

#include "HMTheme.h"

#include <QKeyEvent>
#include <QPainter>
#include <QVariantAnimation>

HMDialSwitch::HMDialSwitch(QWidget *parent)
    : QAbstractButton(parent), m_onColor(HMTheme::color(QStringLiteral("dialOnColor"))),
      m_slide(new QVariantAnimation(this))
{
    setCheckable(true);
    setFocusPolicy(Qt::StrongFocus);
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    m_slide->setDuration(150);
    m_slide->setEasingCurve(QEasingCurve::OutCubic);
    QObject::connect(m_slide, &QVariantAnimation::valueChanged, this, [this](const QVariant &v) {
        m_knob = v.toReal();
        update();
    });
}

void HMDialSwitch::setOnColor(const QColor &color)
{
    m_onColor = color;
    update();
}

void HMDialSwitch::checkStateSet()
{
    QAbstractButton::checkStateSet();
    slideKnob();
}

void HMDialSwitch::nextCheckState()
{
    QAbstractButton::nextCheckState();
    slideKnob();
}

void HMDialSwitch::slideKnob()
{
    const qreal target = isChecked() ? 1.0 : 0.0;
    m_slide->stop();
    if (!isVisible()) {
        m_knob = target;
        update();
        return;
    }
    m_slide->setStartValue(m_knob);
    m_slide->setEndValue(target);
    m_slide->start();
}

void HMDialSwitch::keyPressEvent(QKeyEvent *event)
{
    // Return and Enter act like the space bar: a switch is pressed, not typed into.
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        click();
        return;
    }
    QAbstractButton::keyPressEvent(event);
}

void HMDialSwitch::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QSizeF hint = sizeHint();
    QRectF track(QPointF(0, 0), hint);
    track.moveCenter(QRectF(rect()).center());
    track.adjust(3, 3, -3, -3);
    const qreal radius = track.height() / 2;

    const QColor off = HMTheme::color(QStringLiteral("dialOffColor"));
    QColor fill;
    fill.setRgbF(off.redF() + (m_onColor.redF() - off.redF()) * m_knob,
                 off.greenF() + (m_onColor.greenF() - off.greenF()) * m_knob,
                 off.blueF() + (m_onColor.blueF() - off.blueF()) * m_knob);
    if (!isEnabled()) {
        fill.setAlphaF(0.45);
    }
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    painter.drawRoundedRect(track, radius, radius);

    if (hasFocus()) {
        painter.setBrush(Qt::NoBrush);
        painter.setPen(QPen(HMTheme::color(QStringLiteral("dialFocusColor")), 2));
        painter.drawRoundedRect(track.adjusted(-2, -2, 2, 2), radius + 2, radius + 2);
    }

    const qreal inset = 4;
    const qreal knobSize = track.height() - 2 * inset;
    const qreal travel = track.width() - 2 * inset - knobSize;
    const QRectF knob(track.left() + inset + travel * m_knob, track.top() + inset, knobSize,
                      knobSize);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, 40));
    painter.drawEllipse(knob.translated(0, 1.5));
    painter.setBrush(HMTheme::color(QStringLiteral("dialKnobColor")));
    painter.drawEllipse(knob);

    // A power glyph on the knob, in the track's colour.
    const QRectF glyph =
        knob.adjusted(knobSize * 0.3, knobSize * 0.3, -knobSize * 0.3, -knobSize * 0.3);
    painter.setPen(QPen(fill, std::max<qreal>(2.0, knobSize / 14), Qt::SolidLine, Qt::RoundCap));
    painter.setBrush(Qt::NoBrush);
    painter.drawArc(glyph, 120 * 16, 300 * 16);
    painter.drawLine(QPointF(glyph.center().x(), glyph.top() - knobSize * 0.06),
                     QPointF(glyph.center().x(), glyph.center().y()));
}
