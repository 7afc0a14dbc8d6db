#include "HMSwitchOffEffect.h"

#include "HMTheme.h"

#include <QEasingCurve>
#include <QPainter>
#include <QVariantAnimation>

namespace {

constexpr int kRunMs = 800;

// The part of [start, start + length] that has passed at `t`, from 0 to 1.
qreal phase(qreal t, qreal start, qreal length)
{
    return std::clamp((t - start) / length, 0.0, 1.0);
}

} // namespace

HMSwitchOffEffect::HMSwitchOffEffect(QWidget *parent)
    : QWidget(parent), m_run(new QVariantAnimation(this))
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_NoSystemBackground);
    hide();
    m_run->setStartValue(0.0);
    m_run->setEndValue(qreal(kRunMs));
    m_run->setDuration(kRunMs);
    QObject::connect(m_run, &QVariantAnimation::valueChanged, this, [this](const QVariant &v) {
        m_elapsedMs = v.toReal();
        update();
    });
    QObject::connect(m_run, &QVariantAnimation::finished, this, &QWidget::hide);
}

void HMSwitchOffEffect::start()
{
    setGeometry(parentWidget()->rect());
    raise();
    show();
    m_elapsedMs = 0.0;
    m_run->start();
}

void HMSwitchOffEffect::stop()
{
    m_run->stop();
    hide();
}

bool HMSwitchOffEffect::isRunning() const
{
    return m_run->state() == QAbstractAnimation::Running;
}

void HMSwitchOffEffect::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor light = HMTheme::color(QStringLiteral("displaySwitchOffColor"));
    const qreal t = m_elapsedMs;

    const QEasingCurve easeIn(QEasingCurve::InQuad);
    painter.setOpacity(1.0 - easeIn.valueForProgress(phase(t, 0, 600)));
    QColor veil = light;
    veil.setAlphaF(0.35);
    painter.fillRect(rect(), veil);

    qreal opacity = phase(t, 0, 300);
    opacity -= (1.0 - 0.295) * phase(t, 300, 300);
    const QEasingCurve easeOut(QEasingCurve::OutQuad);
    const qreal height = 1.0 - 0.95 * easeOut.valueForProgress(phase(t, 0, 300));
    const qreal width = 1.0 - phase(t, 300, 500);
    QRectF band(0, 0, rect().width() * width, std::max<qreal>(2.0, rect().height() * height));
    band.moveCenter(QRectF(rect()).center());
    painter.setOpacity(std::max<qreal>(0.0, opacity));
    painter.fillRect(band, light);
}
