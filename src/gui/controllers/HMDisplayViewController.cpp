#include "HMDisplayViewController.h"

#include "ui_HMDisplayViewController.h"

#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMSwitchOffEffect.h"
#include "HMTheme.h"
#include "HMVPNManager.h"
#include "HMWisprouteManager.h"

#include <QAccessible>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

namespace {

constexpr qint64 kBytesPerMB = 1048576;

void setTextColor(QWidget *widget, const QColor &color)
{
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, color);
    widget->setPalette(palette);
}

} // namespace

HMDisplayViewController::HMDisplayViewController(const HMScreenContext &context, QWidget *parent)
    : QWidget(parent), m_context(context), m_ui(std::make_unique<Ui::HMDisplayViewController>())
{
    m_ui->setupUi(this);
    QFont logo = m_ui->logoImage->font();
    logo.setBold(true);
    logo.setLetterSpacing(QFont::AbsoluteSpacing, 2.5);
    m_ui->logoImage->setFont(logo);
    QFont status = m_ui->statusLabel->font();
    status.setPointSizeF(status.pointSizeF() * 1.5);
    status.setBold(true);
    m_ui->statusLabel->setFont(status);
    m_switchOff = new HMSwitchOffEffect(this);

    setDisplayStateIsOn(false);

    HMVPNManager *vpn = m_context.vpn;
    QObject::connect(vpn, &HMVPNManager::stateChanged, this, [this] { stateDidChange(); });
    QObject::connect(vpn, &HMVPNManager::bandwidthAvailableChanged, this,
                     [this] { updateAccountInfoDisplay(); });
    QObject::connect(m_context.api, &HMAPIClient::isFallrootHealthyChanged, this,
                     [this] { stateDidChange(); });
    QObject::connect(m_context.routing, &HMWisprouteManager::wisprouteModeChanged, this,
                     [this] { wisprouteModeDidChange(); });
    // Verification and the cap change the line as much as the plan does.
    QObject::connect(m_context.account, &HMAccountManager::didChangeValueForKey, this,
                     [this](const QString &key) {
                         static const QStringList keys{
                             QStringLiteral("fullVersion"), QStringLiteral("canyon"),
                             QStringLiteral("accountVerified"), QStringLiteral("maxBandwidth")};
                         if (keys.contains(key)) {
                             updateAccountInfoDisplay();
                         }
                     });

    stateDidChange();
    updateAccountInfoDisplay();
    wisprouteModeDidChange();
}

HMDisplayViewController::~HMDisplayViewController() = default;

QString HMDisplayViewController::status() const
{
    if (m_context.routing->isEnabled() && m_context.vpn->isConnected()) {
        return QStringLiteral("Wisproute On");
    }
    return vpn_state_to_string(m_context.vpn->state());
}

void HMDisplayViewController::announceStatus()
{
    const QString text = status();
    if (text == m_announcedStatus) {
        return;
    }
    m_announcedStatus = text;
    m_ui->statusLabel->setText(text);
    m_ui->statusLabel->setAccessibleDescription(text);
    QAccessibleEvent event(m_ui->statusLabel, QAccessible::NameChanged);
    QAccessible::updateAccessibility(&event);
    Q_EMIT statusChanged(text);
}

void HMDisplayViewController::stateDidChange()
{
    announceStatus();
    setOn(m_context.vpn->isConnected());
    setIndicatorForState(m_context.vpn->state());
}

void HMDisplayViewController::wisprouteModeDidChange()
{
    announceStatus();
    if (m_context.vpn->isConnected()) {
        setIndicatorForState(m_context.vpn->state());
        setDisplayStateIsOn(true);
    }
}

void HMDisplayViewController::setOn(bool on)
{
    if (on == m_on) {
        return;
    }
    setDisplayStateIsOn(on);
    if (m_on && !on) {
        m_switchOff->start();
    } else {
        m_switchOff->stop();
    }
    m_on = on;
}

void HMDisplayViewController::setDisplayStateIsOn(bool on)
{
    struct Look
    {
        const char *background, *logo, *status, *text, *barBackground, *barForeground;
    };
    static const Look kLooks[] = {
        {"scr_off", "scr_off_logo", "displayDisconnectedStatusColor",
         "progressBarDisconnectedTextColor", "progressBarDisconnectedBackgroundColor",
         "progressBarDisconnectedColor"},
        {"scr_on", "scr_on_logo", "displayConnectedStatusColor", "progressBarConnectedTextColor",
         "progressBarConnectedBackgroundColor", "progressBarConnectedColor"},
        // One colour for the whole bar in this look: the established design, keep it.
        {"scr_on_wisproute", "scr_on_logo_wisproute", "displayConnectedStatusWisprouteColor",
         "progressBarWisprouteConnectedTextColor", "progressBarWisprouteConnectedBackgroundColor",
         "progressBarWisprouteConnectedBackgroundColor"},
    };
    const bool routing = m_context.routing->isEnabled();
    const Look &look = kLooks[on ? (routing ? 2 : 1) : 0];
    const auto colour = [](const char *name) { return HMTheme::color(QLatin1String(name)); };
    m_backgroundName = QLatin1String(look.background);
    m_logoName = QLatin1String(look.logo);
    m_lookIsOn = on;
    setTextColor(m_ui->statusLabel, colour(look.status));
    setTextColor(m_ui->accountInfoLabel, colour(look.text));
    setTextColor(m_ui->logoImage, HMTheme::color(on ? QStringLiteral("displayLogoOnColor")
                                                    : QStringLiteral("displayLogoOffColor")));
    m_ui->progressBarView->setColors(colour(look.barBackground), colour(look.barForeground));
    m_ui->statusLabel->setCursor(on && routing ? Qt::PointingHandCursor : Qt::ArrowCursor);
    update();
}

void HMDisplayViewController::setIndicatorForState(VPNState state)
{
    HMIndicatorView *indicator = m_ui->indicatorImage;
    switch (state) {
    case VPNState::Disconnected:
        indicator->stopSpinner();
        indicator->stopPulse();
        indicator->setImageName(m_context.api->isFallrootHealthy()
                                    ? QStringLiteral("indicator_disconnected")
                                    : QStringLiteral("indicator_error"));
        break;
    case VPNState::Disconnecting:
    case VPNState::Connecting:
        indicator->stopPulse();
        indicator->setImageName(QStringLiteral("indicator_connecting"));
        indicator->startSpinner();
        break;
    case VPNState::Connected:
        indicator->stopSpinner();
        if (m_context.routing->isEnabled()) {
            indicator->setImageName(QStringLiteral("indicator_wisproute"));
            indicator->startPulse();
        } else {
            indicator->stopPulse();
            indicator->setImageName(QStringLiteral("indicator_connected"));
        }
        break;
    case VPNState::Error:
    case VPNState::OutOfData:
    case VPNState::NoConnection:
        indicator->stopSpinner();
        indicator->stopPulse();
        indicator->setImageName(QStringLiteral("indicator_error"));
        break;
    }
    indicator->setAccessibleDescription(m_ui->statusLabel->text());
}

void HMDisplayViewController::updateAccountInfoDisplay()
{
    HMAccountManager &account = *m_context.account;
    QString text;
    double progress = 0.0;
    if (!account.isAccountVerified()) {
        text = QStringLiteral("Please verify your email");
    } else if (account.isFullVersion()) {
        text = QStringLiteral("%1 Hollowmere \u2013 Unlimited Data")
                   .arg(account.isCanyon() ? QStringLiteral("Canyon") : QStringLiteral("Summit"));
        progress = 1.0;
    } else {
        const qint64 available = m_context.vpn->bandwidthAvailable();
        text =
            QStringLiteral("Sprout Hollowmere \u2013 %1 MB remaining").arg(available / kBytesPerMB);
        // A cap of 0 gives NaN or infinity here; the bar copes, the division stays honest.
        progress = double(available) / double(account.maxBandwidth());
    }
    m_ui->accountInfoLabel->setText(text);
    m_ui->progressBarView->setProgress(progress);
}

void HMDisplayViewController::didPressStatus()
{
    if (m_context.routing->isEnabled() && m_context.vpn->isConnected() &&
        m_context.showPreferencesWisproute) {
        m_context.showPreferencesWisproute();
    }
}

bool HMDisplayViewController::isPlayingSwitchOff() const
{
    return m_switchOff->isRunning();
}

void HMDisplayViewController::mouseReleaseEvent(QMouseEvent *event)
{
    if (m_ui->statusLabel->geometry().contains(event->position().toPoint())) {
        didPressStatus();
    }
    QWidget::mouseReleaseEvent(event);
}

void HMDisplayViewController::changeEvent(QEvent *event)
{
    // The desktop switched between light and dark: take the colours of the other set.
    if (event->type() == QEvent::ApplicationPaletteChange) {
        setDisplayStateIsOn(m_lookIsOn);
    }
    QWidget::changeEvent(event);
}

void HMDisplayViewController::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QString look = m_backgroundName == QLatin1String("scr_on_wisproute")
                             ? QStringLiteral("OnWisproute")
                         : m_backgroundName == QLatin1String("scr_on") ? QStringLiteral("On")
                                                                       : QStringLiteral("Off");
    QLinearGradient gradient(rect().topLeft(), rect().bottomRight());
    gradient.setColorAt(0, HMTheme::color(QStringLiteral("display%1TopColor").arg(look)));
    gradient.setColorAt(1, HMTheme::color(QStringLiteral("display%1BottomColor").arg(look)));
    painter.fillRect(rect(), gradient);

    // Quiet ripples in the corner: the mere the client is named after.
    QColor ripple = HMTheme::color(m_lookIsOn ? QStringLiteral("displayLogoOnColor")
                                              : QStringLiteral("displayLogoOffColor"));
    ripple.setAlphaF(m_lookIsOn ? 0.16 : 0.10);
    painter.setPen(QPen(ripple, 1.5));
    const QPointF centre(width() - 36, height() * 0.42);
    for (int ring = 1; ring <= 4; ++ring) {
        const qreal r = 14.0 * ring;
        painter.drawEllipse(centre, r, r * 0.55);
    }
}
