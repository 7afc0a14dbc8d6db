// Network namespaces a test makes for itself, so that fixed ports and routes are its own and
// ctest can run such tests side by side. A run killed by its time-out cannot clean up, so
// names carry the pid and the next run removes what dead runs left behind.
#pragma once

#include <QString>
#include <QStringList>

namespace HMTestNamespace {

// Makes "<prefix><pid><suffix>" with loopback up. Empty, with `error`, when it cannot.
QString create(const QString &prefix, const QString &suffix = QString(), QString *error = nullptr);
// Ends every process in the namespace and deletes it with its /etc/netns folder.
void remove(const QString &name);
// Removes namespaces "<prefix><pid>..." whose process no longer runs.
void removeStale(const QString &prefix);
// Runs `ip -n name arguments...`; false (with a warning unless quiet) when it fails.
bool ip(const QString &name, const QStringList &arguments, bool quiet = false);
// A socket of the given type made inside the namespace (setns in a short-lived thread).
int socketIn(const QString &name, int type);

// Keeps the calling thread in the namespace until destroyed. Sockets made meanwhile stay
// there for good, which is how code under test can watch a namespace the test runs outside.
class Scope
{
public:
    explicit Scope(const QString &name);
    ~Scope();
    Scope(const Scope &) = delete;
    Scope &operator=(const Scope &) = delete;
    bool entered() const { return m_entered; }

private:
    int m_original = -1;
    bool m_entered = false;
};

} // namespace HMTestNamespace
