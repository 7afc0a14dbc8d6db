// The running application's control interface on the session bus:
// com.hollowmere.Hollowmere at /com/hollowmere/Hollowmere, whose client is hollowmerectl.
//
// Every method calls the same manager operations and rules the screens call (VPN switch,
// sign-in and sign-out, country choice, selective-routing mode and lists); nothing is
// decided here that a screen would decide differently. Properties are a view on those
// managers: after any change the interface reads them all again and sends one
// PropertiesChanged with the values that differ, so a client never misses a change that
// came from the screens instead of from the bus.
//
// Refusals are D-Bus errors named com.hollowmere.Hollowmere.Error.<Reason> with a message
// a person can read; a refused call changes nothing. Privacy switches, diagnostics upload
// and the domain editor's cleaning rule live in managers that are wired in through the
// setters below (one call each); until then their methods answer NotAvailable.
//
// Main thread only. Tests and the application build it over the managers they hold.
#pragma once

#include "HMError.h"

#include <QDBusContext>
#include <QObject>
#include <QStringList>
#include <QVariantMap>
#include <functional>
#include <optional>

class HMAccountManager;
class HMNotificationCenter;
class HMVPNManager;
class HMWisprouteManager;
class QDBusConnection;

class HMControlInterface : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.hollowmere.Hollowmere")
    Q_PROPERTY(uint State READ state)
    Q_PROPERTY(QString StateText READ stateText)
    Q_PROPERTY(QString Country READ country)
    Q_PROPERTY(QString ChosenCountry READ chosenCountry)
    Q_PROPERTY(QStringList Countries READ countries)
    Q_PROPERTY(QString ConnectedAddress READ connectedAddress)
    Q_PROPERTY(qlonglong Allowance READ allowance)
    Q_PROPERTY(bool SignedIn READ signedIn)
    Q_PROPERTY(QString User READ user)
    Q_PROPERTY(QString RoutingMode READ routingMode)
    Q_PROPERTY(bool RoutingAvailable READ routingAvailable)
    Q_PROPERTY(QStringList IncludedDomains READ includedDomains)
    Q_PROPERTY(QStringList ExcludedDomains READ excludedDomains)
    Q_PROPERTY(QString LastError READ lastError)
    Q_PROPERTY(QVariantMap Privacy READ privacy)

public:
    static const QString kServiceName;   // "com.hollowmere.Hollowmere"
    static const QString kObjectPath;    // "/com/hollowmere/Hollowmere"
    static const QString kInterfaceName; // "com.hollowmere.Hollowmere"

    using Completion = std::function<void(const HMMaybeError &)>;
    // Cleaned domain, or nullopt when the text is refused.
    using DomainCleaner = std::function<std::optional<QString>(const QString &text)>;
    using DiagnosticsSender = std::function<void(const QString &feedback, Completion)>;
    // filter "" switches the whole feature; the status map holds "enabled" and one
    // boolean per filter, and "blocked" (a map of counters).
    using PrivacySwitch = std::function<void(const QString &filter, bool on, Completion)>;
    using PrivacyStatus = std::function<QVariantMap()>;

    HMControlInterface(HMVPNManager &vpn, HMAccountManager &account, HMWisprouteManager &routing,
                       HMNotificationCenter &center, QObject *parent = nullptr);

    // The application's interface over the process-wide managers, on the session bus.
    // False (and a log line) when there is no session bus or the name is taken.
    static bool registerOnSessionBus();
    static HMControlInterface *shared();

    bool registerOn(const QDBusConnection &bus, QString *why);

    void setDomainCleaner(DomainCleaner cleaner) { m_cleaner = std::move(cleaner); }
    void setDiagnosticsSender(DiagnosticsSender sender) { m_sendDiagnostics = std::move(sender); }
    void setPrivacyBackend(PrivacyStatus status, PrivacySwitch toggle);

    uint state() const;
    QString stateText() const;
    QString country() const;
    QString chosenCountry() const;
    QStringList countries() const;
    QString connectedAddress() const;
    qlonglong allowance() const;
    bool signedIn() const;
    QString user() const;
    QString routingMode() const;
    bool routingAvailable() const;
    QStringList includedDomains() const;
    QStringList excludedDomains() const;
    QString lastError() const { return m_lastError; }
    QVariantMap privacy() const;

    // Every property as the bus shows it.
    QVariantMap snapshot() const;

public Q_SLOTS:
    // Reads every property again and announces what changed; connected to the managers'
    // change signals, and to be connected to any manager wired in later.
    void refresh();

    Q_SCRIPTABLE void Connect();
    Q_SCRIPTABLE void Disconnect();
    Q_SCRIPTABLE void Login(const QString &user, const QString &password);
    Q_SCRIPTABLE void Logout();
    Q_SCRIPTABLE void SetCountry(const QString &code);
    Q_SCRIPTABLE void SetRoutingMode(const QString &mode);
    Q_SCRIPTABLE void AddDomain(const QString &list, const QString &text);
    Q_SCRIPTABLE void RemoveDomain(const QString &list, const QString &domain);
    Q_SCRIPTABLE void SetPrivacy(const QString &filter, bool on);
    Q_SCRIPTABLE void SendReport(const QString &feedback);

private:
    // Sends the error reply (when called over the bus) and returns, for one-line refusals.
    void refuse(const QString &reason, const QString &message);
    // A delayed reply for an operation that completes later.
    Completion replyLater();
    bool refuseUnlessSignedIn();
    bool refuseWhileConnecting();
    bool refuseUnlessRoutingEditable();
    std::optional<bool> exclusionList(const QString &list);
    void setLastError(const HMMaybeError &error);

    HMVPNManager &m_vpn;
    HMAccountManager &m_account;
    HMWisprouteManager &m_routing;
    HMNotificationCenter &m_center;
    DomainCleaner m_cleaner;
    DiagnosticsSender m_sendDiagnostics;
    PrivacyStatus m_privacyStatus;
    PrivacySwitch m_privacySwitch;
    QString m_lastError;
    QVariantMap m_announced;
    QString m_busName; // empty until registered
};
