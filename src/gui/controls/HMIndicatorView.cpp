#include "HMIndicatorView.h"

#include "HMTheme.h"

#include <QPainter>
#include <QVariantAnimation>

HMIndicatorView::HMIndicatorView(QWidget *parent)
    : QWidget(parent), m_spinner(new QVariantAnimation(this)), m_pulse(new QVariantAnimation(this))
{
    setFixedSize(sizeHint());
    // Minus a quarter turn per 0.2 s, linear and cumulative: one full turn per 0.8 s.
    m_spinner->setStartValue(0.0);
    m_spinner->setEndValue(-360.0);
    m_spinner->setDuration(800);
    m_spinner->setLoopCount(-1);
    QObject::connect(m_spinner, &QVariantAnimation::valueChanged, this, [this](const QVariant &v) {
        m_angle = v.toReal();
        update();
    });

    m_pulse->setDuration(3000);
    m_pulse->setLoopCount(-1);
    m_pulse->setStartValue(1.0);
    m_pulse->setKeyValueAt(0.4 / 3.0, 1.0);
    m_pulse->setKeyValueAt(1.6 / 3.0, 0.4);
    m_pulse->setEndValue(1.0);
    m_pulse->setEasingCurve(QEasingCurve::InOutSine);
    QObject::connect(m_pulse, &QVariantAnimation::valueChanged, this, [this](const QVariant &v) {
        m_opacity = v.toReal();
        update();
    });
}

void HMIndicatorView::setImageName(const QString &name)
{
    m_imageName = name;
    update();
}

void HMIndicatorView::startSpinner()
{
    m_wantSpinner = true;
    runWantedAnimations();
}

void HMIndicatorView::stopSpinner()
{
    m_wantSpinner = false;
    m_spinner->stop();
    m_angle = 0.0;
    update();
}

void HMIndicatorView::startPulse()
{
    m_wantPulse = true;
    runWantedAnimations();
}

void HMIndicatorView::stopPulse()
{
    m_wantPulse = false;
    m_pulse->stop();
    m_opacity = 1.0;
    update();
}

void HMIndicatorView::runWantedAnimations()
{
    if (!isVisible()) {
        return;
    }
    if (m_wantSpinner && m_spinner->state() != QAbstractAnimation::Running) {
        m_spinner->start();
    }
    if (m_wantPulse && m_pulse->state() != QAbstractAnimation::Running) {
        m_pulse->start();
    }
}

bool HMIndicatorView::isAnimating() const
{
    return m_spinner->state() == QAbstractAnimation::Running ||
           m_pulse->state() == QAbstractAnimation::Running;
}

void HMIndicatorView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    runWantedAnimations();
}

void HMIndicatorView::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    m_spinner->stop();
    m_pulse->stop();
}

void HMIndicatorView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setOpacity(m_opacity);
    const QRectF box = QRectF(rect()).adjusted(2, 2, -2, -2);
    const qreal pen = std::max<qreal>(2.0, box.width() / 7);

    if (m_imageName == QLatin1String("indicator_connecting")) {
        painter.translate(box.center());
        painter.rotate(m_angle);
        painter.translate(-box.center());
        painter.setPen(QPen(HMTheme::color(QStringLiteral("indicatorConnectingColor")), pen,
                            Qt::SolidLine, Qt::RoundCap));
        painter.drawArc(box.adjusted(pen / 2, pen / 2, -pen / 2, -pen / 2), 90 * 16, 270 * 16);
    } else if (m_imageName == QLatin1String("indicator_connected") ||
               m_imageName == QLatin1String("indicator_wisproute")) {
        const bool routing = m_imageName == QLatin1String("indicator_wisproute");
        painter.setPen(Qt::NoPen);
        painter.setBrush(HMTheme::color(routing ? QStringLiteral("indicatorWisprouteColor")
                                                : QStringLiteral("indicatorConnectedColor")));
        painter.drawEllipse(box);
        painter.setPen(
            QPen(QColor(255, 255, 255), pen * 0.8, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        if (routing) {
            painter.setPen(QPen(HMTheme::color(QStringLiteral("displayOnWisprouteBottomColor")),
                                pen * 0.8, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        }
        const QPointF c = box.center();
        const qreal u = box.width() / 10;
        painter.drawPolyline(
            QPolygonF({c + QPointF(-2.6 * u, 0.2 * u), c + QPointF(-0.7 * u, 2.0 * u),
                       c + QPointF(2.8 * u, -1.8 * u)}));
    } else if (m_imageName == QLatin1String("indicator_error")) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(HMTheme::color(QStringLiteral("indicatorErrorColor")));
        painter.drawEllipse(box);
        painter.setPen(QPen(QColor(255, 255, 255), pen * 0.8, Qt::SolidLine, Qt::RoundCap));
        const QPointF c = box.center();
        const qreal u = box.height() / 10;
        painter.drawLine(c + QPointF(0, -2.8 * u), c + QPointF(0, 0.6 * u));
        painter.drawPoint(c + QPointF(0, 2.8 * u));
    } else if (!m_imageName.isEmpty()) {
        painter.setPen(QPen(HMTheme::color(QStringLiteral("indicatorDisconnectedColor")), pen));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(box.adjusted(pen / 2, pen / 2, -pen / 2, -pen / 2));
    }
}
