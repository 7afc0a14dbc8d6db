#include "HMPrivacyManager.h"

#include "EventSource.h"
#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMClock.h"
#include "HMLog.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMPreferences.h"
#include "HMURLEncoding.h"
#include "HMVPNManager.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QUrl>

const QString HMPrivacyManager::kDidSwitchDialOffNotification =
    QStringLiteral("HMDidSwitchDialOffNotification");
const QString HMPrivacyManager::kBlocksPath = QStringLiteral("/dashboard/blocks?");

namespace {

const QString kEnabled = QStringLiteral("enabled");
const QString kFacebookEnabled = QStringLiteral("facebookEnabled");
const QString kTwitterEnabled = QStringLiteral("twitterEnabled");
const QString kLinkedinEnabled = QStringLiteral("linkedinEnabled");
const QString kBlockedContent = QStringLiteral("blockedContent");
const QString kName = QStringLiteral("name");
const QString kChildren = QStringLiteral("children");
const QString kImage = QStringLiteral("image");
const QString kCount = QStringLiteral("count");
constexpr int kStreamRoot = 2; // index of the API roots
constexpr int kMostRecentItems = 10;
// The service knows a handful of categories and short item names. Without these bounds a
// hostile stream could grow the counters with every event it sends.
constexpr int kMaximumCategories = 32;
constexpr int kMaximumNameLength = 512;

QString prefKeyFor(const QString &key)
{
    return QStringLiteral("privacy") + key.left(1).toUpper() + key.mid(1);
}

// The service refuses with a reply {"status": "error", "message": ...}; that is a failure
// too, or a refused sync would clear every switch.
HMMaybeError failureOf(const QVariantMap &reply, const HMMaybeError &error)
{
    if (error || reply.value(QStringLiteral("status")).toString() != QLatin1String("error")) {
        return error;
    }
    const QString message =
        reply.value(QStringLiteral("message"), reply.value(QStringLiteral("details"))).toString();
    return HMError::errorWithDescription(
        message.isEmpty() ? QStringLiteral("The service refused the request") : message);
}

void logFailure(const QVariantMap &reply, const HMMaybeError &error)
{
    if (const HMMaybeError failure = failureOf(reply, error)) {
        HMLogError(QStringLiteral("error: %1").arg(failure->description()));
    }
}

QVariantMap categoryNode(const QString &name, const QString &image = QString())
{
    QVariantMap node{{kName, name}, {kChildren, QVariantList()}};
    if (!image.isNull()) {
        node.insert(kImage, image);
    }
    return node;
}

} // namespace

HMPrivacyManager &HMPrivacyManager::instance()
{
    static HMPrivacyManager *manager = [] {
        Collaborators c;
        c.store = &HMPreferenceStore::instance();
        c.api = &HMAPIClient::instance();
        c.account = &HMAccountManager::instance();
        c.isVPNConnected = [] { return HMVPNManager::instance().isConnected(); };
        auto *privacy = new HMPrivacyManager(c);
        privacy->startKVO(HMVPNManager::instance());
        return privacy;
    }();
    return *manager;
}

HMPrivacyManager::HMPrivacyManager(const Collaborators &collaborators, QObject *parent)
    : QObject(parent), m_collaborators(collaborators),
      m_clock(collaborators.clock ? collaborators.clock : &HMClock::system()),
      m_notifications(collaborators.notifications ? collaborators.notifications
                                                  : &HMNotificationCenter::defaultCenter())
{
    Q_ASSERT(collaborators.store && collaborators.api && collaborators.account);
    initializeBlockedContent();
    m_dialOffToken = m_notifications->addObserverForName(kDidSwitchDialOffNotification,
                                                         [this] { resetStats(); });
}

HMPrivacyManager::~HMPrivacyManager()
{
    stopKVO();
    m_notifications->removeObserver(m_dialOffToken);
    delete m_eventSource;
}

QVariant HMPrivacyManager::getPref(const QString &key) const
{
    return m_collaborators.store->value(key);
}

void HMPrivacyManager::setValueForPref(const QVariant &value, const QString &key)
{
    if (value.isValid()) {
        m_collaborators.store->setValue(key, value);
    } else {
        m_collaborators.store->remove(key);
    }
}

bool HMPrivacyManager::prefBool(const QString &key) const
{
    return pref_bool_value(getPref(prefKeyFor(key)));
}

bool HMPrivacyManager::isEnabled() const
{
    return prefBool(kEnabled);
}

bool HMPrivacyManager::isFacebookEnabled() const
{
    return prefBool(kFacebookEnabled);
}

bool HMPrivacyManager::isTwitterEnabled() const
{
    return prefBool(kTwitterEnabled);
}

bool HMPrivacyManager::isLinkedinEnabled() const
{
    return prefBool(kLinkedinEnabled);
}

void HMPrivacyManager::announceSwitch(const QString &key)
{
    Q_EMIT didChangeValueForKey(key);
    const bool value = prefBool(key);
    if (key == kEnabled) {
        Q_EMIT enabledChanged(value);
    } else if (key == kFacebookEnabled) {
        Q_EMIT facebookEnabledChanged(value);
    } else if (key == kTwitterEnabled) {
        Q_EMIT twitterEnabledChanged(value);
    } else if (key == kLinkedinEnabled) {
        Q_EMIT linkedinEnabledChanged(value);
    }
}

void HMPrivacyManager::updateValueForKey(const QVariant &value, const QString &key)
{
    Q_EMIT willChangeValueForKey(key);
    setValueForPref(value, prefKeyFor(key));
    announceSwitch(key);
}

void HMPrivacyManager::storeSwitch(const QString &key, bool enabled)
{
    updateValueForKey(enabled, key);
}

void HMPrivacyManager::setEnabled(bool enabled)
{
    storeSwitch(kEnabled, enabled);
    setAllFiltersEnabled(enabled);
    resetStats();
    if (enabled && m_collaborators.isVPNConnected && m_collaborators.isVPNConnected()) {
        subscribeToPrivacyEvents();
    } else {
        unsubscribeFromPrivacyEvents();
    }
}

void HMPrivacyManager::setFacebookEnabled(bool enabled)
{
    storeSwitch(kFacebookEnabled, enabled);
    setFilterEnabled(QStringLiteral("facebook"), enabled);
}

void HMPrivacyManager::setTwitterEnabled(bool enabled)
{
    storeSwitch(kTwitterEnabled, enabled);
    setFilterEnabled(QStringLiteral("twitter"), enabled);
}

void HMPrivacyManager::setLinkedinEnabled(bool enabled)
{
    storeSwitch(kLinkedinEnabled, enabled);
    setFilterEnabled(QStringLiteral("linkedin"), enabled);
}

// The local switch keeps the new value on failure; the next sync brings the service's back.
void HMPrivacyManager::setFilterEnabled(const QString &filter, bool enabled)
{
    HMAccountManager &account = *m_collaborators.account;
    m_collaborators.api->setPrivacyFilter(filter, enabled, account.username(), account.password(),
                                          logFailure);
}

void HMPrivacyManager::setAllFiltersEnabled(bool enabled)
{
    HMAccountManager &account = *m_collaborators.account;
    m_collaborators.api->setAllPrivacyFiltersEnabled(enabled, account.username(),
                                                     account.password(), logFailure);
}

void HMPrivacyManager::syncFilterSettings()
{
    HMAccountManager &account = *m_collaborators.account;
    QPointer<HMPrivacyManager> self(this);
    m_collaborators.api->getPrivacyFilterStateWithUsername(
        account.username(), account.password(),
        [self](const QVariantMap &reply, const HMMaybeError &error) {
            if (const HMMaybeError failure = failureOf(reply, error)) {
                HMLogError(failure->description());
                return;
            }
            if (!self) {
                return;
            }
            // A missing field is an invalid value: the preference goes and reads as false.
            const QVariantMap filters = reply.value(QStringLiteral("filters")).toMap();
            self->updateValueForKey(reply.value(QStringLiteral("globalSwitch")), kEnabled);
            self->updateValueForKey(filters.value(QStringLiteral("facebook")), kFacebookEnabled);
            self->updateValueForKey(filters.value(QStringLiteral("twitter")), kTwitterEnabled);
            self->updateValueForKey(filters.value(QStringLiteral("linkedin")), kLinkedinEnabled);
        });
}

void HMPrivacyManager::vpnConnectedDidChange(bool connected)
{
    const bool wasConnected = m_lastConnected;
    m_lastConnected = connected;
    if (wasConnected == connected) {
        return;
    }
    if (m_collaborators.account->isLoggedIn()) {
        syncFilterSettings();
    }
    if (connected) {
        if (isEnabled()) {
            subscribeToPrivacyEvents();
        }
    } else {
        unsubscribeFromPrivacyEvents();
    }
}

void HMPrivacyManager::startKVO(HMVPNManager &vpn)
{
    stopKVO();
    m_vpnConnection = QObject::connect(&vpn, &HMVPNManager::connectedChanged, this,
                                       &HMPrivacyManager::vpnConnectedDidChange);
    vpnConnectedDidChange(vpn.isConnected());
}

void HMPrivacyManager::stopKVO()
{
    QObject::disconnect(m_vpnConnection);
}

void HMPrivacyManager::subscribeToPrivacyEvents()
{
    HMAccountManager &account = *m_collaborators.account;
    const QString query = url_encode_dict({{QStringLiteral("username"), account.username()},
                                           {QStringLiteral("password"), account.password()}});
    const QUrl url(m_collaborators.api->APIRoots().value(kStreamRoot) + kBlocksPath + query);
    // The callers never subscribe twice; should one, the old stream must not live on unseen.
    delete m_eventSource;
    m_eventSource =
        new EventSource(url, *m_collaborators.api->networkAccessManager(), *m_clock, this);
    m_eventSource->onOpen([](const Event &) {});
    m_eventSource->onMessage([this](const Event &event) { handleBlockEvent(event); });
    // Closes whichever source is current by then. An ended stream is reopened at once by the
    // source and closed again here, which ends the subscription; after a failure the source's
    // retry is already scheduled, so failures are retried.
    m_eventSource->onError([this](const Event &) {
        if (m_eventSource) {
            m_eventSource->close();
        }
    });
}

void HMPrivacyManager::unsubscribeFromPrivacyEvents()
{
    if (m_eventSource) {
        m_eventSource->close();
        m_eventSource->deleteLater();
        m_eventSource = nullptr;
    }
}

void HMPrivacyManager::initializeBlockedContent()
{
    m_blockedContent = {
        categoryNode(QStringLiteral("analytics"), QStringLiteral("privacy_icon_analytics")),
        categoryNode(QStringLiteral("ads"), QStringLiteral("privacy_icon_ad"))};
}

void HMPrivacyManager::resetStats()
{
    Q_EMIT willChangeValueForKey(kBlockedContent);
    m_numFacebookBlocked = 0;
    m_numTwitterBlocked = 0;
    m_numLinkedinBlocked = 0;
    initializeBlockedContent();
    Q_EMIT didChangeValueForKey(kBlockedContent);
    Q_EMIT countersChanged();
    Q_EMIT blockedContentChanged();
}

void HMPrivacyManager::handleBlockEvent(const Event &event)
{
    const QJsonObject block = QJsonDocument::fromJson(event.data.toUtf8()).object();
    const QJsonValue categoryValue = block.value(QStringLiteral("category"));
    const QJsonValue textValue = block.value(QStringLiteral("text"));
    if (!categoryValue.isString() || !textValue.isString()) {
        return;
    }
    const QString category = categoryValue.toString();
    const QString text = textValue.toString();
    if (category.size() > kMaximumNameLength || text.size() > kMaximumNameLength) {
        return;
    }

    if (category == QLatin1String("social")) {
        uint *counter = nullptr;
        if (text == QLatin1String("Facebook")) {
            counter = &m_numFacebookBlocked;
        } else if (text == QLatin1String("Twitter")) {
            counter = &m_numTwitterBlocked;
        } else if (text == QLatin1String("LinkedIn")) {
            counter = &m_numLinkedinBlocked;
        }
        if (counter) {
            ++*counter;
            Q_EMIT countersChanged();
        }
        return;
    }

    int nodeIndex = 0;
    while (nodeIndex < m_blockedContent.size() &&
           m_blockedContent.at(nodeIndex).toMap().value(kName).toString() != category) {
        ++nodeIndex;
    }
    if (nodeIndex == m_blockedContent.size() && nodeIndex >= kMaximumCategories) {
        return;
    }
    Q_EMIT willChangeValueForKey(kBlockedContent);
    if (nodeIndex == m_blockedContent.size()) {
        m_blockedContent.append(categoryNode(category));
    }
    QVariantMap node = m_blockedContent.at(nodeIndex).toMap();
    QVariantList children = node.value(kChildren).toList();
    QVariantMap item{{kName, text}, {kCount, 1u}};
    for (int i = 0; i < children.size(); ++i) {
        const QVariantMap existing = children.at(i).toMap();
        if (existing.value(kName).toString() == text) {
            item.insert(kCount, existing.value(kCount).toUInt() + 1);
            children.removeAt(i);
            break;
        }
    }
    children.prepend(item);
    if (children.size() > kMostRecentItems) {
        children.removeLast();
    }
    node.insert(kChildren, children);
    m_blockedContent[nodeIndex] = node;
    Q_EMIT didChangeValueForKey(kBlockedContent);
    Q_EMIT blockedContentChanged();
}
