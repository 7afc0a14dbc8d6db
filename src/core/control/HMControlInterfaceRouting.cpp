// The selective-routing methods of the control interface: the routing pane's rules for
// the mode and the two domain lists.
#include "HMAccountManager.h"
#include "HMControlInterface.h"
#include "HMVPNManager.h"
#include "HMVPNState.h"
#include "HMWisprouteManager.h"

bool HMControlInterface::refuseUnlessRoutingEditable()
{
    if (refuseUnlessSignedIn() || refuseWhileConnecting()) {
        return true;
    }
    if (!m_account.isFullVersion()) {
        refuse(QStringLiteral("NotAvailable"),
               QStringLiteral("Selective routing needs a paid plan"));
        return true;
    }
    if (!m_routing.isSupported()) {
        refuse(QStringLiteral("NotAvailable"),
               QStringLiteral("Selective routing is not available on this computer: the helper "
                              "cannot run the DNS proxy"));
        return true;
    }
    return false;
}

std::optional<bool> HMControlInterface::exclusionList(const QString &list)
{
    if (list == QLatin1String("include")) {
        return false;
    }
    if (list == QLatin1String("exclude")) {
        return true;
    }
    refuse(QStringLiteral("InvalidArgument"),
           QStringLiteral("Unknown list '%1': use include or exclude").arg(list));
    return std::nullopt;
}

void HMControlInterface::SetRoutingMode(const QString &mode)
{
    int stored = 0;
    if (mode == QLatin1String("off")) {
        stored = HMWisprouteManager::ModeOff;
    } else if (mode == QLatin1String("include")) {
        stored = HMWisprouteManager::ModeInclusion;
    } else if (mode == QLatin1String("exclude")) {
        stored = HMWisprouteManager::ModeExclusion;
    } else {
        refuse(QStringLiteral("InvalidArgument"),
               QStringLiteral("Unknown routing mode '%1': use off, include or exclude").arg(mode));
        return;
    }
    // Switching off is always allowed: it is the way out of a mode that can no longer work.
    const bool refused = stored == HMWisprouteManager::ModeOff
                             ? refuseUnlessSignedIn() || refuseWhileConnecting()
                             : refuseUnlessRoutingEditable();
    if (refused) {
        return;
    }
    m_routing.setWisprouteMode(stored);
    // As the routing pane does: a running tunnel gets its DNS proxy restarted in the new
    // mode, and the answer is not acted on.
    if (m_vpn.isConnected()) {
        m_routing.restartDnsDaemonWithCompletion([](const HMMaybeError &) {});
    }
}

void HMControlInterface::AddDomain(const QString &list, const QString &text)
{
    const std::optional<bool> exclusion = exclusionList(list);
    if (!exclusion || refuseUnlessRoutingEditable()) {
        return;
    }
    const std::optional<QString> domain = m_cleaner(text);
    if (!domain) {
        refuse(QStringLiteral("InvalidDomain"), QStringLiteral("'%1' is not a domain").arg(text));
        return;
    }
    QStringList domains = *exclusion ? m_routing.arrayDomainsExclusion() : m_routing.arrayDomains();
    if (domains.contains(*domain)) {
        refuse(QStringLiteral("AlreadyListed"),
               QStringLiteral("%1 is already on the %2 list").arg(*domain, list));
        return;
    }
    domains.append(*domain);
    *exclusion ? m_routing.setArrayDomainsExclusion(domains) : m_routing.setArrayDomains(domains);
    if (!m_routing.saveDomainsInFileWithExclusion(*exclusion)) {
        domains.removeLast();
        *exclusion ? m_routing.setArrayDomainsExclusion(domains)
                   : m_routing.setArrayDomains(domains);
        refuse(QStringLiteral("Failed"), QStringLiteral("The domain list could not be saved"));
    }
    refresh();
}

void HMControlInterface::RemoveDomain(const QString &list, const QString &domain)
{
    const std::optional<bool> exclusion = exclusionList(list);
    if (!exclusion || refuseUnlessRoutingEditable()) {
        return;
    }
    const QStringList before =
        *exclusion ? m_routing.arrayDomainsExclusion() : m_routing.arrayDomains();
    const qsizetype row = before.indexOf(domain);
    if (row < 0) {
        refuse(QStringLiteral("NotListed"),
               QStringLiteral("%1 is not on the %2 list").arg(domain, list));
        return;
    }
    QStringList after = before;
    after.removeAt(row);
    *exclusion ? m_routing.setArrayDomainsExclusion(after) : m_routing.setArrayDomains(after);
    // An empty list is never written (the routing manager's rule), so the file may keep the
    // last entry; memory, which the DNS proxy's next copy comes from, no longer has it.
    if (!after.isEmpty() && !m_routing.saveDomainsInFileWithExclusion(*exclusion)) {
        *exclusion ? m_routing.setArrayDomainsExclusion(before) : m_routing.setArrayDomains(before);
        refuse(QStringLiteral("Failed"), QStringLiteral("The domain list could not be saved"));
    }
    refresh();
}
