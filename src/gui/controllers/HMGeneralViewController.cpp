#include "HMGeneralViewController.h"

#include "ui_HMGeneralViewController.h"

#include "HMPreferenceStore.h"
#include "HMPreferences.h"
#include "HMTheme.h"

#include <QFileDialog>
#include <QFileInfo>

namespace {

const QString kNotificationsKey = QStringLiteral("notificationsEnabled");
const QString kForceTCPKey = QStringLiteral("vpnForceTCP");
const QString kConfigFileKey = QStringLiteral("vpnConfigFile");

} // namespace

HMGeneralViewController::HMGeneralViewController(const HMScreenContext &context, QWidget *parent)
    : QWidget(parent), m_context(context), m_ui(std::make_unique<Ui::HMGeneralViewController>())
{
    m_ui->setupUi(this);
    HMTheme::styleError(m_ui->errorLabel);
    HMTheme::styleSecondary(m_ui->configPathLabel);
    QFont title = m_ui->configTitleLabel->font();
    title.setBold(true);
    m_ui->configTitleLabel->setFont(title);

    QObject::connect(m_ui->showNotificationsCheck, &QCheckBox::clicked, this,
                     &HMGeneralViewController::didPressShowNotifications);
    QObject::connect(m_ui->launchAtLoginCheck, &QCheckBox::clicked, this,
                     &HMGeneralViewController::didPressLaunchAtLogin);
    QObject::connect(m_ui->forceTCPCheck, &QCheckBox::clicked, this,
                     &HMGeneralViewController::didPressForceTCP);
    QObject::connect(m_ui->chooseConfigButton, &QPushButton::clicked, this,
                     &HMGeneralViewController::didPressChooseConfigFile);
    QObject::connect(m_ui->clearConfigButton, &QPushButton::clicked, this,
                     &HMGeneralViewController::didPressClearConfigFile);
    reload();
}

HMGeneralViewController::~HMGeneralViewController() = default;

void HMGeneralViewController::reload()
{
    HMPreferenceStore &store = *m_context.store;
    m_ui->showNotificationsCheck->setChecked(pref_bool_value(store.value(kNotificationsKey)));
    m_ui->forceTCPCheck->setChecked(pref_bool_value(store.value(kForceTCPKey)));
    const bool canLaunch = m_context.launchOnStartup && m_context.setLaunchOnStartup;
    m_ui->launchAtLoginCheck->setEnabled(canLaunch);
    m_ui->launchAtLoginCheck->setChecked(canLaunch && m_context.launchOnStartup());
    if (!canLaunch) {
        m_ui->launchAtLoginCheck->setToolTip(tr("Not available in this build"));
    }
    const QString path = store.value(kConfigFileKey).toString();
    m_ui->configPathLabel->setText(path.isEmpty() ? tr("Built-in settings") : path);
    m_ui->configPathLabel->setToolTip(path);
    m_ui->clearConfigButton->setEnabled(!path.isEmpty());
}

void HMGeneralViewController::didPressShowNotifications()
{
    HMPreferenceStore &store = *m_context.store;
    store.setValue(kNotificationsKey, !pref_bool_value(store.value(kNotificationsKey)));
    reload();
}

void HMGeneralViewController::didPressLaunchAtLogin()
{
    if (m_context.setLaunchOnStartup) {
        m_context.setLaunchOnStartup(m_ui->launchAtLoginCheck->isChecked());
    }
    reload();
}

void HMGeneralViewController::didPressForceTCP()
{
    m_context.store->setValue(kForceTCPKey, m_ui->forceTCPCheck->isChecked());
    reload();
}

void HMGeneralViewController::chooseConfigFile(const QString &path)
{
    const QFileInfo info(path);
    if (!info.isFile() || !info.isReadable()) {
        m_ui->errorLabel->setText(tr("Hollowmere cannot read %1.").arg(path));
        return;
    }
    m_ui->errorLabel->clear();
    m_context.store->setValue(kConfigFileKey, info.absoluteFilePath());
    reload();
}

void HMGeneralViewController::didPressChooseConfigFile()
{
    const QString path =
        QFileDialog::getOpenFileName(this, tr("Choose an OpenVPN configuration file"), QString(),
                                     tr("OpenVPN configuration (*.ovpn *.conf);;All files (*)"));
    if (!path.isEmpty()) {
        chooseConfigFile(path);
    }
}

void HMGeneralViewController::didPressClearConfigFile()
{
    m_context.store->setValue(kConfigFileKey, QVariant());
    m_ui->errorLabel->clear();
    reload();
}

void HMGeneralViewController::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    reload();
}
