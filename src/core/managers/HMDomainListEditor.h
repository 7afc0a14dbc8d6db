// The rules of the selective-routing editor, without widgets, so that the preferences pane
// and the D-Bus control interface edit the lists and the mode the same way.
//
// Several rules look wrong and are kept on purpose: validateDomain() tests the dot on the
// text as typed (before "http://" is stripped), accepts a text starting with "/" as an
// empty domain, does not lower-case or trim, and leaves text beyond position 1111 uncut;
// every refusal is silent; adding refuses an exact duplicate but editing in place does not;
// the two lists are independent; and the choice tags cross the modes (tag 1 is inclusion,
// mode 2; tag 2 is exclusion, mode 1).
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>
#include <functional>
#include <optional>

class HMWisprouteManager;

class HMDomainListEditor
{
public:
    // Only a "/" or "?" below this position cuts the text.
    static constexpr int kCutSentinel = 1111;

    enum Tag
    {
        TagOff = 0,
        TagInclusion = 1,
        TagExclusion = 2,
    };

    // isConnected decides whether a mode change restarts the DNS proxy.
    HMDomainListEditor(HMWisprouteManager &manager, std::function<bool()> isConnected);

    static std::optional<QString> validateDomain(const QString &text);
    static int modeForTag(int tag);
    // The choice to show for a stored mode; none for a mode outside 0-2.
    static std::optional<int> tagForMode(int mode);

    // Reads the inclusion list, then the exclusion list, from their files.
    void load();
    const QStringList &list(bool exclusion) const;

    // The new entry's row, or none when the text was refused or already listed.
    std::optional<int> addDomain(bool exclusion, const QString &text);
    // False when the row does not exist.
    bool deleteDomain(bool exclusion, int row);
    // False when the value was dropped (not text, refused, no such row).
    bool editDomain(bool exclusion, int row, const QVariant &value);
    // Stores the tag's mode; while connected the DNS proxy restarts once, its reply ignored.
    void chooseTag(int tag);

private:
    HMWisprouteManager &m_manager;
    std::function<bool()> m_isConnected;
};
