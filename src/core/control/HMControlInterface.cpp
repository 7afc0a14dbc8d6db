#include "HMControlInterface.h"

#include "HMAccountManager.h"
#include "HMLog.h"
#include "HMNotificationCenter.h"
#include "HMVPNManager.h"
#include "HMVPNState.h"
#include "HMWisprouteManager.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QPointer>

const QString HMControlInterface::kServiceName = QStringLiteral("com.hollowmere.Hollowmere");
const QString HMControlInterface::kObjectPath = QStringLiteral("/com/hollowmere/Hollowmere");
const QString HMControlInterface::kInterfaceName = QStringLiteral("com.hollowmere.Hollowmere");

namespace {

const QString kDidLogInNotification = QStringLiteral("HMDidLogInNotification");

QString errorName(const QString &reason)
{
    return HMControlInterface::kInterfaceName + QStringLiteral(".Error.") + reason;
}

// Until the editor's cleaning rule is wired in, the interface refuses only what can never
// be a host name; it never rewrites the text.
std::optional<QString> minimalClean(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty() || trimmed != text || !text.contains(QLatin1Char('.')) ||
        text.contains(QLatin1Char(' '))) {
        return std::nullopt;
    }
    return text;
}

} // namespace

HMControlInterface::HMControlInterface(HMVPNManager &vpn, HMAccountManager &account,
                                       HMWisprouteManager &routing, HMNotificationCenter &center,
                                       QObject *parent)
    : QObject(parent), m_vpn(vpn), m_account(account), m_routing(routing), m_center(center),
      m_cleaner(minimalClean)
{
    // What the routing pane does when it loads: the lists come from their files once.
    m_routing.readDomainsFromFileWithExclusion(false);
    m_routing.readDomainsFromFileWithExclusion(true);

    QObject::connect(&m_vpn, &HMVPNManager::stateChanged, this, &HMControlInterface::refresh);
    QObject::connect(&m_vpn, &HMVPNManager::bandwidthAvailableChanged, this,
                     &HMControlInterface::refresh);
    QObject::connect(&m_account, &HMAccountManager::didChangeValueForKey, this,
                     &HMControlInterface::refresh);
    QObject::connect(&m_routing, &HMWisprouteManager::didChangeValueForKey, this,
                     &HMControlInterface::refresh);
    m_announced = snapshot();
}

HMControlInterface *HMControlInterface::shared()
{
    static QPointer<HMControlInterface> interface;
    if (!interface) {
        interface = new HMControlInterface(HMVPNManager::instance(), HMAccountManager::instance(),
                                           HMWisprouteManager::instance(),
                                           HMNotificationCenter::defaultCenter());
    }
    return interface;
}

bool HMControlInterface::registerOnSessionBus()
{
    QString why;
    if (!shared()->registerOn(QDBusConnection::sessionBus(), &why)) {
        HMLogError(QStringLiteral("The control interface is not available: %1").arg(why));
        return false;
    }
    return true;
}

bool HMControlInterface::registerOn(const QDBusConnection &bus, QString *why)
{
    if (!bus.isConnected()) {
        *why = QStringLiteral("no session bus (%1)").arg(bus.lastError().message());
        return false;
    }
    QDBusConnection connection(bus);
    if (!connection.registerObject(kObjectPath, this,
                                   QDBusConnection::ExportScriptableSlots |
                                       QDBusConnection::ExportAllProperties)) {
        *why = QStringLiteral("the object path %1 is taken").arg(kObjectPath);
        return false;
    }
    // The object goes first so that a client woken by NameOwnerChanged finds it.
    if (!connection.registerService(kServiceName)) {
        connection.unregisterObject(kObjectPath);
        *why = QStringLiteral("the name %1 is owned by another process").arg(kServiceName);
        return false;
    }
    m_busName = connection.name();
    return true;
}

void HMControlInterface::setPrivacyBackend(PrivacyStatus status, PrivacySwitch toggle)
{
    m_privacyStatus = std::move(status);
    m_privacySwitch = std::move(toggle);
    refresh();
}

// ---- properties ----

uint HMControlInterface::state() const
{
    return static_cast<uint>(m_vpn.state());
}

QString HMControlInterface::stateText() const
{
    return vpn_state_to_string(m_vpn.state());
}

QString HMControlInterface::country() const
{
    // With "Closest" chosen the tunnel goes to the country the closest-server test picked.
    const QString closest = m_account.currentClosestCountry();
    const bool tunnelUp = m_vpn.state() == VPNState::Connected;
    return tunnelUp && !closest.isEmpty() ? closest : m_account.currentCountry();
}

QString HMControlInterface::chosenCountry() const
{
    return m_account.currentCountry();
}

QStringList HMControlInterface::countries() const
{
    QStringList codes;
    const QVariantList records = m_account.countries();
    for (const QVariant &record : records) {
        codes.append(record.toMap().value(QStringLiteral("code")).toString());
    }
    return codes;
}

QString HMControlInterface::connectedAddress() const
{
    return m_vpn.state() == VPNState::Connected ? m_vpn.connectedIp() : QString();
}

qlonglong HMControlInterface::allowance() const
{
    // The tunnel's live meter while it runs; the service's figure otherwise.
    return m_vpn.state() == VPNState::Connected ? m_vpn.bandwidthAvailable()
                                                : m_account.bandwidthAvailable();
}

bool HMControlInterface::signedIn() const
{
    return m_account.isLoggedIn();
}

QString HMControlInterface::user() const
{
    return m_account.username();
}

QString HMControlInterface::routingMode() const
{
    switch (m_routing.wisprouteMode()) {
    case HMWisprouteManager::ModeOff:
        return QStringLiteral("off");
    case HMWisprouteManager::ModeInclusion:
        return QStringLiteral("include");
    default:
        // Any other non-zero value counts as the exclusion list, as the routing manager reads it.
        return QStringLiteral("exclude");
    }
}

bool HMControlInterface::routingAvailable() const
{
    return m_routing.isSupported() && m_account.isFullVersion();
}

QStringList HMControlInterface::includedDomains() const
{
    return m_routing.arrayDomains();
}

QStringList HMControlInterface::excludedDomains() const
{
    return m_routing.arrayDomainsExclusion();
}

QVariantMap HMControlInterface::privacy() const
{
    return m_privacyStatus ? m_privacyStatus() : QVariantMap();
}

QVariantMap HMControlInterface::snapshot() const
{
    return {{QStringLiteral("State"), state()},
            {QStringLiteral("StateText"), stateText()},
            {QStringLiteral("Country"), country()},
            {QStringLiteral("ChosenCountry"), chosenCountry()},
            {QStringLiteral("Countries"), countries()},
            {QStringLiteral("ConnectedAddress"), connectedAddress()},
            {QStringLiteral("Allowance"), allowance()},
            {QStringLiteral("SignedIn"), signedIn()},
            {QStringLiteral("User"), user()},
            {QStringLiteral("RoutingMode"), routingMode()},
            {QStringLiteral("RoutingAvailable"), routingAvailable()},
            {QStringLiteral("IncludedDomains"), includedDomains()},
            {QStringLiteral("ExcludedDomains"), excludedDomains()},
            {QStringLiteral("LastError"), lastError()},
            {QStringLiteral("Privacy"), privacy()}};
}

void HMControlInterface::refresh()
{
    const QVariantMap now = snapshot();
    QVariantMap changed;
    for (auto it = now.constBegin(); it != now.constEnd(); ++it) {
        if (m_announced.value(it.key()) != it.value()) {
            changed.insert(it.key(), it.value());
        }
    }
    m_announced = now;
    if (changed.isEmpty() || m_busName.isEmpty()) {
        return;
    }
    QDBusMessage signal =
        QDBusMessage::createSignal(kObjectPath, QStringLiteral("org.freedesktop.DBus.Properties"),
                                   QStringLiteral("PropertiesChanged"));
    signal << kInterfaceName << changed << QStringList();
    QDBusConnection(m_busName).send(signal);
}

// ---- replies ----

void HMControlInterface::refuse(const QString &reason, const QString &message)
{
    if (calledFromDBus()) {
        sendErrorReply(errorName(reason), message);
    }
}

HMControlInterface::Completion HMControlInterface::replyLater()
{
    if (!calledFromDBus()) {
        return [](const HMMaybeError &) {};
    }
    setDelayedReply(true);
    const QDBusMessage call = message();
    QDBusConnection bus = connection();
    return [call, bus](const HMMaybeError &error) mutable {
        bus.send(
            error ? call.createErrorReply(errorName(QStringLiteral("Failed")), error->displayText())
                  : call.createReply());
    };
}

void HMControlInterface::setLastError(const HMMaybeError &error)
{
    m_lastError = error ? error->displayText() : QString();
    refresh();
}

bool HMControlInterface::refuseUnlessSignedIn()
{
    if (m_account.isLoggedIn()) {
        return false;
    }
    refuse(QStringLiteral("NotSignedIn"), QStringLiteral("Not signed in"));
    return true;
}

bool HMControlInterface::refuseWhileConnecting()
{
    if (m_vpn.state() != VPNState::Connecting && m_vpn.state() != VPNState::Disconnecting) {
        return false;
    }
    refuse(QStringLiteral("Busy"),
           QStringLiteral("The tunnel is %1; try again when it is done")
               .arg(m_vpn.state() == VPNState::Connecting ? QStringLiteral("connecting")
                                                          : QStringLiteral("disconnecting")));
    return true;
}

// ---- the tunnel ----

void HMControlInterface::Connect()
{
    if (refuseUnlessSignedIn() || refuseWhileConnecting()) {
        return;
    }
    const VPNState now = m_vpn.state();
    if (now == VPNState::Connected) {
        return;
    }
    if (now == VPNState::OutOfData) {
        refuse(QStringLiteral("OutOfData"), QStringLiteral("Out of Data"));
        return;
    }
    if (now == VPNState::NoConnection) {
        refuse(QStringLiteral("NoNetwork"), QStringLiteral("No network connection"));
        return;
    }
    setLastError(std::nullopt);
    QPointer<HMControlInterface> self(this);
    // The call returns once the switch-on has started; how it ends shows in State and, for
    // a failure, in LastError (hollowmerectl connect --wait watches both).
    m_vpn.connectWithCompletion([self](const HMMaybeError &error) {
        if (self && error) {
            self->setLastError(error);
        }
    });
}

void HMControlInterface::Disconnect()
{
    const VPNState now = m_vpn.state();
    if (now == VPNState::Disconnecting) {
        refuseWhileConnecting();
        return;
    }
    if (now != VPNState::Connected && now != VPNState::Connecting) {
        return;
    }
    QPointer<HMControlInterface> self(this);
    m_vpn.disconnectWithCompletion([self](const HMMaybeError &error) {
        if (self && error) {
            self->setLastError(error);
        }
    });
}

// ---- the account ----

void HMControlInterface::Login(const QString &user, const QString &password)
{
    if (m_account.isLoggedIn()) {
        refuse(QStringLiteral("AlreadySignedIn"),
               QStringLiteral("Already signed in as %1; sign out first").arg(m_account.username()));
        return;
    }
    if (user.trimmed().isEmpty() || password.isEmpty()) {
        refuse(QStringLiteral("InvalidArgument"),
               QStringLiteral("Both the e-mail address and the password are needed"));
        return;
    }
    Completion reply = replyLater();
    HMNotificationCenter *center = &m_center;
    m_account.loginWithUsername(user, password, true, [reply, center](const HMMaybeError &error) {
        if (!error) {
            center->postNotificationName(kDidLogInNotification);
        }
        reply(error);
    });
}

void HMControlInterface::Logout()
{
    if (refuseUnlessSignedIn()) {
        return;
    }
    // The tunnel runs on this account's token: it goes down before the account goes.
    if (m_vpn.state() == VPNState::Connected || m_vpn.state() == VPNState::Connecting) {
        m_vpn.disconnect();
    }
    m_account.logout();
}

void HMControlInterface::SetCountry(const QString &code)
{
    if (refuseUnlessSignedIn() || refuseWhileConnecting()) {
        return;
    }
    const QStringList known = countries();
    // Codes are upper case in the service's list; "closest" is accepted for "Closest".
    QString wanted;
    for (const QString &candidate : known) {
        if (candidate.compare(code, Qt::CaseInsensitive) == 0) {
            wanted = candidate;
        }
    }
    if (wanted.isEmpty()) {
        refuse(QStringLiteral("UnknownCountry"),
               QStringLiteral("Unknown country '%1'; this account offers: %2")
                   .arg(code, known.join(QStringLiteral(", "))));
        return;
    }
    // A connected tunnel follows the change on its own (the VPN manager reconnects).
    m_account.setCurrentCountry(wanted);
}

// ---- parts wired in by their managers ----

void HMControlInterface::SetPrivacy(const QString &filter, bool on)
{
    if (!m_privacySwitch) {
        refuse(QStringLiteral("NotAvailable"),
               QStringLiteral("This build of Hollowmere has no privacy filters"));
        return;
    }
    if (refuseUnlessSignedIn()) {
        return;
    }
    const QStringList filters = privacy().keys();
    if (!filter.isEmpty() && (!filters.contains(filter) || filter == QLatin1String("enabled") ||
                              filter == QLatin1String("blocked"))) {
        refuse(QStringLiteral("InvalidArgument"),
               QStringLiteral("Unknown filter '%1'").arg(filter));
        return;
    }
    Completion reply = replyLater();
    QPointer<HMControlInterface> self(this);
    m_privacySwitch(filter, on, [self, reply](const HMMaybeError &error) {
        if (self) {
            self->refresh();
        }
        reply(error);
    });
}

void HMControlInterface::SendReport(const QString &feedback)
{
    if (!m_sendDiagnostics) {
        refuse(QStringLiteral("NotAvailable"),
               QStringLiteral("This build of Hollowmere cannot send diagnostics"));
        return;
    }
    // The service files a report under the signed-in user's name; without one it has no owner.
    if (refuseUnlessSignedIn()) {
        return;
    }
    m_sendDiagnostics(feedback, replyLater());
}
