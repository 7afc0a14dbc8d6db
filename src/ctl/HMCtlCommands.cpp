#include "HMCtlCommands.h"

#include "HMCtlPassword.h"
#include "HMCtlText.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QString bytes(qlonglong value)
{
    const char *units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    double amount = static_cast<double>(value);
    int unit = 0;
    while (amount >= 1024 && unit < 4) {
        amount /= 1024;
        ++unit;
    }
    return unit == 0
               ? QStringLiteral("%1 bytes").arg(value)
               : QStringLiteral("%1 %2").arg(amount, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

} // namespace

HMCtlCommands::HMCtlCommands(QTextStream &out, QTextStream &err) : m_out(out), m_err(err) {}

QString HMCtlCommands::usage()
{
    return QStringLiteral(
        "Usage: hollowmerectl COMMAND [ARGUMENTS]\n"
        "Controls the running Hollowmere application.\n\n"
        "  status [--json]                  the tunnel, the account and the settings\n"
        "  connect [--wait] [--timeout S]   switch the tunnel on\n"
        "  disconnect [--wait] [--timeout S] switch the tunnel off\n"
        "  login USER                       sign in (password from the terminal or stdin)\n"
        "  logout                           sign out\n"
        "  countries                        the account's countries (* = chosen)\n"
        "  country CODE                     choose a country, e.g. US or Closest\n"
        "  routing off|include|exclude      selective routing mode\n"
        "  routing add|remove include|exclude DOMAIN\n"
        "  routing list [include|exclude]   the domain lists\n"
        "  privacy on|off|status            the privacy filters\n"
        "  privacy FILTER on|off            one filter (facebook, twitter, linkedin)\n"
        "  report \"FEEDBACK\"                send diagnostics with a message\n"
        "  watch [--json]                   one line per change until interrupted\n\n"
        "Exit status: 0 done, 1 refused or failed, 2 usage, 3 Hollowmere not running,\n"
        "4 not offered by this build, 5 timed out.\n");
}

int HMCtlCommands::fail(const HMCtlBus::Failure &failure)
{
    m_err << "hollowmerectl: " << failure.message << Qt::endl;
    return failure.exit;
}

int HMCtlCommands::usageError(const QString &message)
{
    m_err << "hollowmerectl: " << message << "\n"
          << "Try 'hollowmerectl --help'." << Qt::endl;
    return HMCtlBus::Usage;
}

int HMCtlCommands::run(const QStringList &arguments)
{
    QStringList words = arguments;
    if (words.isEmpty()) {
        return usageError(QStringLiteral("no command given"));
    }
    const QString command = words.takeFirst();
    if (command == QLatin1String("--help") || command == QLatin1String("-h") ||
        command == QLatin1String("help")) {
        m_out << usage() << Qt::flush;
        return HMCtlBus::Ok;
    }
    if (command == QLatin1String("--version")) {
        m_out << "hollowmerectl " << QCoreApplication::applicationVersion() << Qt::endl;
        return HMCtlBus::Ok;
    }

    // Options shared by the commands that take them; what is left are the words.
    bool json = false;
    bool wait = false;
    int timeout = 0;
    QStringList rest;
    for (qsizetype i = 0; i < words.size(); ++i) {
        const QString &word = words.at(i);
        if (word == QLatin1String("--json")) {
            json = true;
        } else if (word == QLatin1String("--wait")) {
            wait = true;
        } else if (word == QLatin1String("--timeout")) {
            bool ok = false;
            timeout = i + 1 < words.size() ? words.at(++i).toInt(&ok) : 0;
            if (!ok || timeout <= 0) {
                return usageError(QStringLiteral("--timeout needs a number of seconds"));
            }
        } else {
            rest.append(word);
        }
    }
    const bool jsonAllowed =
        command == QLatin1String("status") || command == QLatin1String("watch");
    const bool waitAllowed =
        command == QLatin1String("connect") || command == QLatin1String("disconnect");
    if ((json && !jsonAllowed) || ((wait || timeout) && !waitAllowed)) {
        return usageError(QStringLiteral("that option does not go with '%1'").arg(command));
    }

    struct Shape
    {
        const char *name;
        qsizetype minWords;
        qsizetype maxWords;
    };
    static const Shape shapes[] = {{"status", 0, 0},  {"connect", 0, 0}, {"disconnect", 0, 0},
                                   {"login", 1, 1},   {"logout", 0, 0},  {"countries", 0, 0},
                                   {"country", 1, 1}, {"routing", 1, 3}, {"privacy", 1, 2},
                                   {"report", 1, 1},  {"watch", 0, 0}};
    const Shape *shape = nullptr;
    for (const Shape &candidate : shapes) {
        if (command == QLatin1String(candidate.name)) {
            shape = &candidate;
        }
    }
    if (!shape) {
        return usageError(QStringLiteral("unknown command '%1'").arg(command));
    }
    if (rest.size() < shape->minWords || rest.size() > shape->maxWords) {
        return usageError(QStringLiteral("wrong number of arguments for '%1'").arg(command));
    }

    if (const auto failure = m_bus.reach()) {
        return fail(*failure);
    }
    if (command == QLatin1String("status")) {
        return status(json);
    }
    if (command == QLatin1String("connect") || command == QLatin1String("disconnect")) {
        return switchTunnel(command == QLatin1String("connect"), wait,
                            timeout ? timeout : (command == QLatin1String("connect") ? 120 : 30));
    }
    if (command == QLatin1String("login")) {
        return login(rest.constFirst());
    }
    if (command == QLatin1String("countries")) {
        return countries();
    }
    if (command == QLatin1String("routing")) {
        return routing(rest);
    }
    if (command == QLatin1String("privacy")) {
        return privacy(rest);
    }
    if (command == QLatin1String("watch")) {
        return watch(json);
    }
    std::optional<HMCtlBus::Failure> failure;
    if (command == QLatin1String("logout")) {
        failure = m_bus.call(QStringLiteral("Logout"));
    } else if (command == QLatin1String("country")) {
        failure = m_bus.call(QStringLiteral("SetCountry"), {rest.constFirst()});
    } else {
        // Collecting and uploading the logs takes a while.
        failure = m_bus.call(QStringLiteral("SendReport"), {rest.constFirst()}, 180000);
        if (!failure) {
            m_out << "Diagnostics sent. Thank you." << Qt::endl;
        }
    }
    return failure ? fail(*failure) : HMCtlBus::Ok;
}

int HMCtlCommands::status(bool json)
{
    QVariantMap p;
    if (const auto failure = m_bus.properties(&p)) {
        return fail(*failure);
    }
    if (json) {
        m_out << QJsonDocument(QJsonObject::fromVariantMap(p)).toJson(QJsonDocument::Indented)
              << Qt::flush;
        return HMCtlBus::Ok;
    }
    const auto v = [&p](const char *key) { return p.value(QLatin1String(key)); };
    m_out << "Tunnel:    " << v("StateText").toString();
    if (!v("ConnectedAddress").toString().isEmpty()) {
        m_out << " to " << v("ConnectedAddress").toString();
    }
    m_out << "\n";
    if (!v("LastError").toString().isEmpty()) {
        m_out << "Last error: " << v("LastError").toString() << "\n";
    }
    if (!v("SignedIn").toBool()) {
        m_out << "Account:   not signed in\n" << Qt::flush;
        return HMCtlBus::Ok;
    }
    m_out << "Account:   " << v("User").toString() << "\n";
    m_out << "Country:   " << v("Country").toString();
    if (v("ChosenCountry").toString() != v("Country").toString()) {
        m_out << " (chosen: " << v("ChosenCountry").toString() << ")";
    }
    m_out << "\n";
    m_out << "Allowance: " << bytes(v("Allowance").toLongLong()) << " left\n";
    m_out << "Routing:   " << v("RoutingMode").toString()
          << (v("RoutingAvailable").toBool() ? "" : " (selective routing not available)") << ", "
          << v("IncludedDomains").toStringList().size() << " included, "
          << v("ExcludedDomains").toStringList().size() << " excluded domains\n";
    const QVariantMap privacy = v("Privacy").toMap();
    if (!privacy.isEmpty()) {
        m_out << "Privacy:   " << (privacy.value(QStringLiteral("enabled")).toBool() ? "on" : "off")
              << "\n";
    }
    m_out << Qt::flush;
    return HMCtlBus::Ok;
}

int HMCtlCommands::login(const QString &user)
{
    // Asked before the password, so nobody types one for nothing.
    QVariantMap p;
    if (const auto failure = m_bus.properties(&p)) {
        return fail(*failure);
    }
    if (p.value(QStringLiteral("SignedIn")).toBool()) {
        return fail(
            {HMCtlBus::Refused,
             QStringLiteral("Already signed in as %1; sign out first (hollowmerectl logout)")
                 .arg(p.value(QStringLiteral("User")).toString())});
    }
    const std::optional<QString> password = hm_ctl_read_password(m_err);
    if (!password || password->isEmpty()) {
        return usageError(QStringLiteral("no password given"));
    }
    if (const auto failure = m_bus.call(QStringLiteral("Login"), {user, *password}, 60000)) {
        return fail(*failure);
    }
    m_out << "Signed in as " << user << Qt::endl;
    return HMCtlBus::Ok;
}

int HMCtlCommands::countries()
{
    QVariantMap p;
    if (const auto failure = m_bus.properties(&p)) {
        return fail(*failure);
    }
    const QString chosen = p.value(QStringLiteral("ChosenCountry")).toString();
    const QStringList codes = p.value(QStringLiteral("Countries")).toStringList();
    for (const QString &code : codes) {
        m_out << (code == chosen ? "* " : "  ") << code << "\n";
    }
    m_out << Qt::flush;
    return HMCtlBus::Ok;
}

int HMCtlCommands::routing(const QStringList &words)
{
    const QString verb = words.constFirst();
    if (words.size() == 1 && (verb == QLatin1String("off") || verb == QLatin1String("include") ||
                              verb == QLatin1String("exclude"))) {
        const auto failure = m_bus.call(QStringLiteral("SetRoutingMode"), {verb});
        return failure ? fail(*failure) : HMCtlBus::Ok;
    }
    if (verb == QLatin1String("list") && words.size() <= 2) {
        QVariantMap p;
        if (const auto failure = m_bus.properties(&p)) {
            return fail(*failure);
        }
        const QString which = words.value(1);
        for (const char *list : {"include", "exclude"}) {
            if (!which.isEmpty() && which != QLatin1String(list)) {
                continue;
            }
            const QString key = QLatin1String(list) == QLatin1String("include")
                                    ? QStringLiteral("IncludedDomains")
                                    : QStringLiteral("ExcludedDomains");
            const QStringList domains = p.value(key).toStringList();
            for (const QString &domain : domains) {
                m_out << (which.isEmpty() ? QLatin1String(list) + QLatin1Char(' ') : QString())
                      << domain << "\n";
            }
        }
        if (!which.isEmpty() && which != QLatin1String("include") &&
            which != QLatin1String("exclude")) {
            return usageError(QStringLiteral("the lists are 'include' and 'exclude'"));
        }
        m_out << Qt::flush;
        return HMCtlBus::Ok;
    }
    if ((verb == QLatin1String("add") || verb == QLatin1String("remove")) && words.size() == 3) {
        const auto failure =
            m_bus.call(verb == QLatin1String("add") ? QStringLiteral("AddDomain")
                                                    : QStringLiteral("RemoveDomain"),
                       {words.at(1), words.at(2)});
        return failure ? fail(*failure) : HMCtlBus::Ok;
    }
    return usageError(
        QStringLiteral("routing takes off|include|exclude, "
                       "add|remove include|exclude DOMAIN, or list [include|exclude]"));
}

int HMCtlCommands::privacy(const QStringList &words)
{
    if (words == QStringList{QStringLiteral("status")}) {
        QVariantMap p;
        if (const auto failure = m_bus.properties(&p)) {
            return fail(*failure);
        }
        const QVariantMap privacy = p.value(QStringLiteral("Privacy")).toMap();
        if (privacy.isEmpty()) {
            return fail({HMCtlBus::NotAvailable,
                         QStringLiteral("The running Hollowmere reports no privacy filters")});
        }
        for (auto it = privacy.constBegin(); it != privacy.constEnd(); ++it) {
            m_out << it.key() << ": " << hm_ctl_text(it.value()) << "\n";
        }
        m_out << Qt::flush;
        return HMCtlBus::Ok;
    }
    const QString onOff = words.constLast();
    if (onOff != QLatin1String("on") && onOff != QLatin1String("off")) {
        return usageError(QStringLiteral("privacy takes on, off or status, or FILTER on|off"));
    }
    const QString filter = words.size() == 2 ? words.constFirst() : QString();
    const auto failure =
        m_bus.call(QStringLiteral("SetPrivacy"), {filter, onOff == QLatin1String("on")}, 60000);
    return failure ? fail(*failure) : HMCtlBus::Ok;
}
