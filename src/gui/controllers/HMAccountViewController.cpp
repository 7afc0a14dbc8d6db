#include "HMAccountViewController.h"

#include "ui_HMAccountViewController.h"

#include "HMAccountManager.h"
#include "HMTheme.h"

#include <QJsonDocument>
#include <QJsonValue>

namespace {

constexpr qint64 kBytesPerMB = 1048576;

// As received: a number or a text stays as it is, anything else as compact JSON.
QString asReceived(const QVariant &value)
{
    if (!value.isValid() || value.isNull()) {
        return QStringLiteral("\u2013");
    }
    if (value.canConvert<QString>() && value.typeId() != QMetaType::QVariantMap &&
        value.typeId() != QMetaType::QVariantList) {
        return value.toString();
    }
    return QString::fromUtf8(QJsonDocument::fromVariant(QVariantList{value})
                                 .toJson(QJsonDocument::Compact)
                                 .chopped(1)
                                 .mid(1));
}

} // namespace

HMAccountViewController::HMAccountViewController(const HMScreenContext &context, QWidget *parent)
    : QWidget(parent), m_context(context), m_ui(std::make_unique<Ui::HMAccountViewController>())
{
    m_ui->setupUi(this);
    HMTheme::styleError(m_ui->errorLabel);
    QObject::connect(m_ui->manageAccountButton, &QPushButton::clicked, this,
                     &HMAccountViewController::didPressManageAccount);
    QObject::connect(m_ui->signOutButton, &QPushButton::clicked, this,
                     &HMAccountViewController::didPressSignOut);
    QObject::connect(m_context.account, &HMAccountManager::didChangeValueForKey, this,
                     [this] { reload(); });
    reload();
}

HMAccountViewController::~HMAccountViewController() = default;

void HMAccountViewController::reload()
{
    HMAccountManager &account = *m_context.account;
    const bool signedIn = account.isLoggedIn();
    m_ui->usernameValue->setText(signedIn ? account.username() : tr("Not signed in"));
    if (account.isFullVersion()) {
        m_ui->planValue->setText(account.isCanyon() ? QStringLiteral("Canyon")
                                                    : QStringLiteral("Summit"));
        m_ui->allowanceValue->setText(tr("Unlimited"));
    } else {
        m_ui->planValue->setText(QStringLiteral("Sprout"));
        m_ui->allowanceValue->setText(tr("%1 MB of %2 MB left")
                                          .arg(account.bandwidthAvailable() / kBytesPerMB)
                                          .arg(account.maxBandwidth() / kBytesPerMB));
    }
    m_ui->remainingTimeValue->setText(asReceived(account.fullRemainingTime()));
    m_ui->manageAccountButton->setEnabled(signedIn);
    m_ui->signOutButton->setEnabled(signedIn);
}

void HMAccountViewController::didPressManageAccount()
{
    if (m_context.account->isLoggedIn()) {
        m_context.account->openAccountDetailsPage();
    }
}

void HMAccountViewController::didPressSignOut()
{
    if (m_context.account->isLoggedIn()) {
        m_context.account->logout();
    }
}

void HMAccountViewController::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    reload();
}
