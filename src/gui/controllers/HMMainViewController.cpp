#include "HMMainViewController.h"

#include "ui_HMMainViewController.h"

#include "HMAccountManager.h"
#include "HMCountryNames.h"
#include "HMDisplayViewController.h"
#include "HMNotificationCenter.h"
#include "HMTheme.h"
#include "HMVPNManager.h"
#include "HMWisprouteManager.h"

#include <QCoreApplication>

HMMainViewController::HMMainViewController(const HMScreenContext &context, QWidget *parent)
    : QWidget(parent), m_context(context), m_ui(std::make_unique<Ui::HMMainViewController>()),
      m_display(new HMDisplayViewController(context, this))
{
    m_ui->setupUi(this);
    setAccessibleName(tr("Hollowmere"));
    m_ui->formLayout->insertWidget(0, m_display);
    // The picker row and the buttons sit on the window's own background, with room around.
    m_ui->formLayout->itemAt(1)->layout()->setContentsMargins(16, 14, 16, 10);
    m_ui->formLayout->itemAt(2)->layout()->setContentsMargins(10, 2, 10, 8);
    m_ui->countryPicker->setMinimumWidth(170);
    m_ui->countryPicker->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    m_ui->countryPicker->setMinimumContentsLength(16);
    setTabOrder(m_ui->dialSwitch, m_ui->countryPicker);
    setTabOrder(m_ui->countryPicker, m_ui->preferencesButton);
    setTabOrder(m_ui->preferencesButton, m_ui->diagnosticsButton);
    setTabOrder(m_ui->diagnosticsButton, m_ui->quitButton);
    for (QToolButton *button :
         {m_ui->preferencesButton, m_ui->diagnosticsButton, m_ui->quitButton}) {
        button->setFocusPolicy(Qt::StrongFocus);
    }

    m_ui->preferencesButton->setVisible(bool(m_context.showPreferencesGeneral));
    m_ui->diagnosticsButton->setVisible(bool(m_context.showDiagnostics));
    QObject::connect(m_ui->preferencesButton, &QToolButton::clicked, this,
                     [this] { m_context.showPreferencesGeneral(); });
    QObject::connect(m_ui->diagnosticsButton, &QToolButton::clicked, this,
                     [this] { m_context.showDiagnostics(); });
    // exit, not quit: the tray-less window declines to close, and quit waits on its consent.
    QObject::connect(m_ui->quitButton, &QToolButton::clicked, qApp,
                     [] { QCoreApplication::exit(0); });

    QObject::connect(m_ui->dialSwitch, &HMDialSwitch::clicked, this,
                     &HMMainViewController::didSwitchDial);
    QObject::connect(m_ui->countryPicker, &QComboBox::activated, this,
                     &HMMainViewController::didChooseCountry);
    QObject::connect(m_context.vpn, &HMVPNManager::stateChanged, this, [this] { updateDial(); });
    QObject::connect(m_context.routing, &HMWisprouteManager::wisprouteModeChanged, this,
                     [this] { updateDial(); });
    QObject::connect(m_context.account, &HMAccountManager::didChangeValueForKey, this,
                     [this](const QString &key) {
                         if (key == QLatin1String("countries") ||
                             key == QLatin1String("currentCountry") ||
                             key == QLatin1String("currentCountryCode")) {
                             reloadCountries();
                         }
                     });
    reloadCountries();
    updateDial();
}

HMMainViewController::~HMMainViewController() = default;

void HMMainViewController::didSwitchDial(bool on)
{
    if (on) {
        m_context.vpn->connect();
    } else {
        m_context.vpn->disconnect();
        m_context.center->postNotificationName(QLatin1String(kHMDidSwitchDialOffNotification));
    }
    updateDial();
}

void HMMainViewController::didChooseCountry(int index)
{
    const QString code = m_ui->countryPicker->itemData(index).toString();
    if (!code.isEmpty() && code != m_context.account->currentCountry()) {
        m_context.account->setCurrentCountry(code);
    }
}

void HMMainViewController::reloadCountries()
{
    QComboBox *picker = m_ui->countryPicker;
    const QVariantList records = m_context.account->countries();
    const QStringList names = HMCountryNames::displayNamesForCountryRecords(records);
    const QString current = m_context.account->currentCountry();
    const QSignalBlocker blocker(picker);
    picker->clear();
    for (qsizetype i = 0; i < records.size(); ++i) {
        const QString code = records.at(i).toMap().value(QStringLiteral("code")).toString();
        picker->addItem(names.at(i), code);
    }
    if (picker->count() == 0) {
        picker->addItem(tr("No countries available"));
        picker->setEnabled(false);
        return;
    }
    picker->setEnabled(true);
    picker->setCurrentIndex(std::max(0, picker->findData(current)));
}

void HMMainViewController::updateDial()
{
    const VPNState state = m_context.vpn->state();
    const bool on = state == VPNState::Connected || state == VPNState::Connecting;
    HMDialSwitch *dial = m_ui->dialSwitch;
    dial->setChecked(on);
    dial->setOnColor(HMTheme::color(m_context.routing->isEnabled()
                                        ? QStringLiteral("dialOnWisprouteColor")
                                        : QStringLiteral("dialOnColor")));
    dial->setAccessibleDescription(on ? tr("On") : tr("Off"));
}

void HMMainViewController::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    m_context.account->startUpdatingUsage();
}

void HMMainViewController::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    m_context.account->stopUpdatingUsage();
}

void HMMainViewController::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::ApplicationPaletteChange) {
        updateDial();
    }
    QWidget::changeEvent(event);
}
