#include "HMDomainListEditor.h"

#include "HMWisprouteManager.h"

HMDomainListEditor::HMDomainListEditor(HMWisprouteManager &manager,
                                       std::function<bool()> isConnected)
    : m_manager(manager), m_isConnected(std::move(isConnected))
{}

std::optional<QString> HMDomainListEditor::validateDomain(const QString &text)
{
    if (text.isEmpty()) {
        return std::nullopt;
    }
    const int firstDot = text.indexOf(QLatin1Char('.'));
    if (firstDot < 0 || firstDot == text.size() - 1) {
        return std::nullopt;
    }
    QString domain = text;
    domain.remove(QStringLiteral("http://"));
    domain.remove(QStringLiteral("https://"));
    int cut = kCutSentinel;
    for (const QChar separator : {QLatin1Char('/'), QLatin1Char('?')}) {
        const int at = domain.indexOf(separator);
        if (at >= 0 && at < cut) {
            cut = at;
        }
    }
    if (cut < kCutSentinel) {
        domain.truncate(cut);
    }
    return domain;
}

int HMDomainListEditor::modeForTag(int tag)
{
    if (tag == TagOff) {
        return HMWisprouteManager::ModeOff;
    }
    return tag == TagInclusion ? HMWisprouteManager::ModeInclusion
                               : HMWisprouteManager::ModeExclusion;
}

std::optional<int> HMDomainListEditor::tagForMode(int mode)
{
    switch (mode) {
    case HMWisprouteManager::ModeOff:
        return TagOff;
    case HMWisprouteManager::ModeExclusion:
        return TagExclusion;
    case HMWisprouteManager::ModeInclusion:
        return TagInclusion;
    default:
        return std::nullopt;
    }
}

void HMDomainListEditor::load()
{
    m_manager.readDomainsFromFileWithExclusion(false);
    m_manager.readDomainsFromFileWithExclusion(true);
}

const QStringList &HMDomainListEditor::list(bool exclusion) const
{
    return exclusion ? m_manager.arrayDomainsExclusion() : m_manager.arrayDomains();
}

std::optional<int> HMDomainListEditor::addDomain(bool exclusion, const QString &text)
{
    if (text.isEmpty()) {
        return std::nullopt;
    }
    const std::optional<QString> domain = validateDomain(text);
    if (!domain || list(exclusion).contains(*domain, Qt::CaseSensitive)) {
        return std::nullopt;
    }
    QStringList entries = list(exclusion);
    entries.append(*domain);
    exclusion ? m_manager.setArrayDomainsExclusion(entries) : m_manager.setArrayDomains(entries);
    m_manager.saveDomainsInFileWithExclusion(exclusion);
    return int(entries.size()) - 1;
}

bool HMDomainListEditor::deleteDomain(bool exclusion, int row)
{
    QStringList entries = list(exclusion);
    if (row < 0 || row >= entries.size()) {
        return false;
    }
    entries.removeAt(row);
    exclusion ? m_manager.setArrayDomainsExclusion(entries) : m_manager.setArrayDomains(entries);
    // An emptied list writes nothing, so the last entry stays in the file (see the manager).
    m_manager.saveDomainsInFileWithExclusion(exclusion);
    return true;
}

bool HMDomainListEditor::editDomain(bool exclusion, int row, const QVariant &value)
{
    QStringList entries = list(exclusion);
    if (row < 0 || row >= entries.size() || value.typeId() != QMetaType::QString) {
        return false;
    }
    const std::optional<QString> domain = validateDomain(value.toString());
    if (!domain) {
        return false;
    }
    entries[row] = *domain;
    exclusion ? m_manager.setArrayDomainsExclusion(entries) : m_manager.setArrayDomains(entries);
    m_manager.saveDomainsInFileWithExclusion(exclusion);
    return true;
}

void HMDomainListEditor::chooseTag(int tag)
{
    m_manager.setWisprouteMode(modeForTag(tag));
    if (m_isConnected && m_isConnected()) {
        m_manager.restartDnsDaemonWithCompletion([](const HMMaybeError &) {});
    }
}
