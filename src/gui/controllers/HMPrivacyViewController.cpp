#include "HMPrivacyViewController.h"

#include "HMPrivacyManager.h"
#include "HMVPNManager.h"
#include "HMWisprouteManager.h"
#include "ui_HMPrivacyViewController.h"

#include <QIcon>

// Outside any namespace: the resource's initialiser is a global function.
static void initResources()
{
    // The resources live in a static library; naming them here makes the linker keep them.
    static const bool done = [] {
        Q_INIT_RESOURCE(privacy);
        return true;
    }();
    Q_UNUSED(done);
}

HMPrivacyViewController::HMPrivacyViewController(HMPrivacyManager &privacy,
                                                 HMWisprouteManager &routing, HMVPNManager *vpn,
                                                 QWidget *parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::HMPrivacyViewController>()), m_privacy(privacy),
      m_routing(routing)
{
    initResources();
    m_ui->setupUi(this);
    m_ui->blockedTree->setIconSize(QSize(20, 20));
    m_ui->blockedTree->header()->setStretchLastSection(false);
    m_ui->blockedTree->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_ui->blockedTree->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);

    // clicked, not toggled: only the user's own clicks go to the service.
    QObject::connect(m_ui->enabledSwitch, &QCheckBox::clicked, this,
                     [this](bool on) { m_privacy.setEnabled(on); });
    QObject::connect(m_ui->facebookSwitch, &QCheckBox::clicked, this,
                     [this](bool on) { m_privacy.setFacebookEnabled(on); });
    QObject::connect(m_ui->twitterSwitch, &QCheckBox::clicked, this,
                     [this](bool on) { m_privacy.setTwitterEnabled(on); });
    QObject::connect(m_ui->linkedinSwitch, &QCheckBox::clicked, this,
                     [this](bool on) { m_privacy.setLinkedinEnabled(on); });

    for (auto signal :
         {&HMPrivacyManager::enabledChanged, &HMPrivacyManager::facebookEnabledChanged,
          &HMPrivacyManager::twitterEnabledChanged, &HMPrivacyManager::linkedinEnabledChanged}) {
        QObject::connect(&m_privacy, signal, this, &HMPrivacyViewController::updateSwitches);
    }
    QObject::connect(&m_privacy, &HMPrivacyManager::countersChanged, this,
                     &HMPrivacyViewController::updateCounters);
    QObject::connect(&m_privacy, &HMPrivacyManager::blockedContentChanged, this,
                     &HMPrivacyViewController::updateBlockedContent);
    QObject::connect(&m_routing, &HMWisprouteManager::wisprouteModeChanged, this,
                     &HMPrivacyViewController::updateSwitches);
    if (vpn) {
        QObject::connect(vpn, &HMVPNManager::connectedChanged, this,
                         &HMPrivacyViewController::vpnConnectedDidChange);
        m_connected = vpn->isConnected();
    }
    updateSwitches();
    updateCounters();
    updateBlockedContent();
}

HMPrivacyViewController::~HMPrivacyViewController() = default;

QIcon HMPrivacyViewController::iconNamed(const QString &name)
{
    if (name != QLatin1String("privacy_icon_analytics") &&
        name != QLatin1String("privacy_icon_ad")) {
        return QIcon();
    }
    initResources();
    return QIcon(QStringLiteral(":/privacy/") + name + QStringLiteral(".svg"));
}

void HMPrivacyViewController::vpnConnectedDidChange(bool connected)
{
    m_connected = connected;
    updateSwitches();
}

void HMPrivacyViewController::updateSwitches()
{
    const bool inclusionRouting = m_routing.wisprouteMode() == HMWisprouteManager::ModeInclusion;
    const bool usable = m_connected && !inclusionRouting;
    m_ui->enabledSwitch->setChecked(m_privacy.isEnabled());
    m_ui->facebookSwitch->setChecked(m_privacy.isFacebookEnabled());
    m_ui->twitterSwitch->setChecked(m_privacy.isTwitterEnabled());
    m_ui->linkedinSwitch->setChecked(m_privacy.isLinkedinEnabled());
    for (QCheckBox *box :
         {m_ui->enabledSwitch, m_ui->facebookSwitch, m_ui->twitterSwitch, m_ui->linkedinSwitch}) {
        box->setEnabled(usable);
    }

    QString notice;
    if (inclusionRouting) {
        notice = tr("The privacy filter is not available while Selective routing sends only the "
                    "listed sites through the VPN.");
    } else if (!m_connected) {
        notice = tr("Switch the VPN on to change the privacy filter.");
    }
    m_ui->noticeLabel->setText(notice);
    m_ui->noticeLabel->setVisible(!notice.isEmpty());
    // In inclusion mode the notice stands in place of the counters.
    for (QWidget *counter :
         {static_cast<QWidget *>(m_ui->facebookCount), static_cast<QWidget *>(m_ui->twitterCount),
          static_cast<QWidget *>(m_ui->linkedinCount), static_cast<QWidget *>(m_ui->blockedTree)}) {
        counter->setVisible(!inclusionRouting);
    }
}

void HMPrivacyViewController::updateCounters()
{
    m_ui->facebookCount->setText(QString::number(m_privacy.numFacebookBlocked()));
    m_ui->twitterCount->setText(QString::number(m_privacy.numTwitterBlocked()));
    m_ui->linkedinCount->setText(QString::number(m_privacy.numLinkedinBlocked()));
}

void HMPrivacyViewController::updateBlockedContent()
{
    QTreeWidget *tree = m_ui->blockedTree;
    // Rebuilt whole: at most a few categories of ten items each.
    QStringList collapsed;
    for (int i = 0; i < tree->topLevelItemCount(); ++i) {
        if (!tree->topLevelItem(i)->isExpanded()) {
            collapsed << tree->topLevelItem(i)->text(0);
        }
    }
    tree->clear();
    const QVariantList content = m_privacy.blockedContent();
    for (const QVariant &value : content) {
        const QVariantMap node = value.toMap();
        auto *category = new QTreeWidgetItem(tree);
        const QVariantList children = node.value(QStringLiteral("children")).toList();
        uint total = 0;
        for (const QVariant &childValue : children) {
            const QVariantMap child = childValue.toMap();
            auto *item = new QTreeWidgetItem(category);
            item->setText(0, child.value(QStringLiteral("name")).toString());
            const uint count = child.value(QStringLiteral("count")).toUInt();
            item->setText(1, QString::number(count));
            item->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
            total += count;
        }
        category->setText(0, node.value(QStringLiteral("name")).toString());
        category->setText(1, QString::number(total));
        category->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
        category->setIcon(0, iconNamed(node.value(QStringLiteral("image")).toString()));
        category->setExpanded(!collapsed.contains(category->text(0)));
    }
}
