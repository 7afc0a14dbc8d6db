// hm-bench-shell: the tray application's start-up cost beside a minimal Qt tray program,
// measured in the same run on the same virtual desktop with a tray host:
//   - resident and proportional memory after settling (smaps_rollup),
//   - wakeups per second while idle: context switches of all threads over a window,
//   - launch to tray icon registered with the StatusNotifierWatcher (ms),
//   - memory again after a tray click opened the main panel and a second click closed it
//     (both clicks are the item's Activate call, as a tray host makes it).
//
//   tests/support/with-desktop-session.sh tests/support/with-secret-service.sh
//       build/bench/hm-bench-shell [IDLE_SECONDS]      (one command line)
//
// With HM_BENCH_SMAPS_DIR set, each measured state's /proc/PID/smaps is saved there
// (reference, signed-out, signed-in, panel-closed .smaps): where the memory sits, library by
// library, when a figure moves.
//
// The application runs as hm-shell-testapp, which differs from `hollowmere` only in taking
// the helper as installed, and never connects. It starts twice: signed out, where it shows
// the launch screen and has no tray item; then signed in (the password goes to the session's
// throw-away Secret Service), where it shows the tray item and asks the service for a token
// at start-up, and where the tray clicks open and close the main panel.
#include "HMBundleInfo.h"
#include "HMPreferenceStore.h"
#include "HMProcFile.h"
#include "HMSecretServiceKeychain.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QHash>
#include <QProcess>
#include <QTimer>
#include <csignal>
#include <cstdio>

namespace {

struct Figures
{
    double registeredMs = -1;
    long rssKiB = 0;
    long pssKiB = 0;
    double wakeupsPerSecond = 0;
    int threads = 0;
    long panelOpenRssKiB = 0;
    long panelClosedRssKiB = 0;
    long panelClosedPssKiB = 0;
};

// Items registered with the watcher, with the time each arrived since the launch.
class ItemWatch : public QObject
{
    Q_OBJECT
public:
    QElapsedTimer launched;
    QList<QPair<QString, double>> items;
public Q_SLOTS:
    void registered(const QString &item)
    {
        items.append({item, double(launched.nsecsElapsed()) / 1e6});
    }
};

long smapsField(qint64 pid, const char *field)
{
    return long(HMProcFile::fieldKiB(QStringLiteral("/proc/%1/smaps_rollup").arg(pid), field));
}

void saveSmaps(qint64 pid, const QString &state)
{
    const QString folder = qEnvironmentVariable("HM_BENCH_SMAPS_DIR");
    if (folder.isEmpty()) {
        return;
    }
    QFile smaps(QStringLiteral("/proc/%1/smaps").arg(pid));
    QFile saved(QDir(folder).filePath(state + QStringLiteral(".smaps")));
    if (!smaps.open(QIODevice::ReadOnly) || !saved.open(QIODevice::WriteOnly) ||
        saved.write(smaps.readAll()) < 0) {
        std::fprintf(stderr, "cannot save the memory map of %s\n", qPrintable(state));
    }
}

// Context switches of each live thread. A thread that ends takes its count with it, so
// windows are compared thread by thread.
QHash<QString, long> contextSwitches(qint64 pid)
{
    QHash<QString, long> perThread;
    const QDir tasks(QStringLiteral("/proc/%1/task").arg(pid));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile status(tasks.filePath(task + QStringLiteral("/status")));
        if (!status.open(QIODevice::ReadOnly)) {
            continue;
        }
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.contains("ctxt_switches:")) {
                perThread[task] += line.split(':').last().trimmed().toLong();
            }
        }
    }
    return perThread;
}

long switchesSince(const QHash<QString, long> &before, const QHash<QString, long> &after)
{
    long total = 0;
    for (auto it = after.begin(); it != after.end(); ++it) {
        total += it.value() - before.value(it.key(), 0);
    }
    return total;
}

void waitMs(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// A left click on the item ("service/path" as the watcher announced it).
bool clickItem(const QString &item)
{
    const int slash = int(item.indexOf(QLatin1Char('/')));
    QDBusMessage click = QDBusMessage::createMethodCall(
        item.left(slash), item.mid(slash), QStringLiteral("org.kde.StatusNotifierItem"),
        QStringLiteral("Activate"));
    click << 0 << 0;
    const QDBusMessage reply = QDBusConnection::sessionBus().call(click, QDBus::Block, 5000);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        std::fprintf(stderr, "the tray click failed: %s\n", qPrintable(reply.errorMessage()));
        return false;
    }
    return true;
}

Figures measure(const QString &state, const QString &program, const QStringList &arguments,
                ItemWatch &watch, int idleSeconds, bool hasItem, bool openPanel)
{
    Figures figures;
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    watch.items.clear();
    watch.launched.start();
    process.start(program, arguments);
    if (!process.waitForStarted()) {
        std::fprintf(stderr, "cannot start %s\n", qPrintable(program));
        return figures;
    }
    // Items register under their connection's unique name: matched by process id.
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    QString ownItem;
    while (hasItem && watch.launched.elapsed() < 10000 && figures.registeredMs < 0) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        for (const auto &[item, arrivedMs] : std::as_const(watch.items)) {
            const QString owner = item.section(QLatin1Char('/'), 0, 0);
            if (bus->servicePid(owner).value() == uint(process.processId())) {
                figures.registeredMs = arrivedMs;
                ownItem = item;
            }
        }
    }
    // Settle: start-up work, first paints, the helper's answers, and the thread pool's idle
    // threads ending (after 30 s).
    waitMs(35000);
    figures.rssKiB = smapsField(process.processId(), "Rss:");
    figures.pssKiB = smapsField(process.processId(), "Pss:");
    saveSmaps(process.processId(), state);
    const QHash<QString, long> before = contextSwitches(process.processId());
    waitMs(idleSeconds * 1000);
    const QHash<QString, long> after = contextSwitches(process.processId());
    figures.threads = int(after.size());
    figures.wakeupsPerSecond = double(switchesSince(before, after)) / double(idleSeconds);
    if (openPanel && !ownItem.isEmpty() && clickItem(ownItem)) {
        waitMs(3000);
        figures.panelOpenRssKiB = smapsField(process.processId(), "Rss:");
        if (clickItem(ownItem)) {
            waitMs(10000);
            figures.panelClosedRssKiB = smapsField(process.processId(), "Rss:");
            figures.panelClosedPssKiB = smapsField(process.processId(), "Pss:");
            saveSmaps(process.processId(), QStringLiteral("panel-closed"));
        }
    }
    ::kill(pid_t(process.processId()), SIGTERM);
    process.waitForFinished(5000);
    return figures;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int idleSeconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;
    if (qEnvironmentVariableIsEmpty("HM_DESKTOP_SESSION") ||
        qEnvironmentVariable("HM_SECRET_SERVICE") != QLatin1String("keyring")) {
        std::fprintf(stderr, "run inside with-desktop-session.sh and with-secret-service.sh\n");
        return 2;
    }

    QProcess watcher;
    watcher.start(QStringLiteral(HM_BENCH_WATCHER), {QStringLiteral("--host")});
    ItemWatch watch;
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.connect(QString(), QStringLiteral("/StatusNotifierWatcher"),
                QStringLiteral("org.kde.StatusNotifierWatcher"),
                QStringLiteral("StatusNotifierItemRegistered"), &watch, SLOT(registered(QString)));
    waitMs(500);

    const Figures minimal = measure(QStringLiteral("reference"), QStringLiteral(HM_BENCH_MINIMAL),
                                    {}, watch, idleSeconds, true, false);
    const QStringList appArguments{QStringLiteral("/nonexistent/helper.socket")};
    const Figures signedOut = measure(QStringLiteral("signed-out"), QStringLiteral(HM_BENCH_SHELL),
                                      appArguments, watch, idleSeconds, false, false);

    // Signed in and verified, never connected.
    {
        HMPreferenceStore store(qEnvironmentVariable("XDG_CONFIG_HOME") +
                                QStringLiteral("/com.hollowmere.mac.Hollowmere.json"));
        store.setValue(QStringLiteral("username"), QStringLiteral("bench@example.com"));
        store.setValue(QStringLiteral("accountVerified"), true);
        store.setValue(QStringLiteral("notificationsEnabled"), true);
        store.sync();
        HMSecretServiceKeychain keychain;
        HMMaybeError error;
        if (!keychain.setPassword(QStringLiteral("bench-password"), app_bundle_identifier(),
                                  QStringLiteral("bench@example.com"), &error)) {
            std::fprintf(stderr, "cannot store the password\n");
            return 1;
        }
    }
    const Figures signedIn = measure(QStringLiteral("signed-in"), QStringLiteral(HM_BENCH_SHELL),
                                     appArguments, watch, idleSeconds, true, true);
    watcher.kill();
    watcher.waitForFinished();

    std::printf("idle window: %d s\n", idleSeconds);
    std::printf("| program | icon registered (ms) | RSS (MiB) | PSS (MiB) | RSS ratio | PSS ratio "
                "| wakeups/s idle | threads |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|\n");
    const auto row = [&minimal](const char *name, double registeredMs, long rss, long pss,
                                const QString &wakeups, const QString &threads) {
        const QString icon =
            registeredMs < 0 ? QStringLiteral("-") : QString::number(registeredMs, 'f', 0);
        std::printf("| %s | %s | %.1f | %.1f | %.2f | %.2f | %s | %s |\n", name, qPrintable(icon),
                    double(rss) / 1024.0, double(pss) / 1024.0,
                    double(rss) / double(minimal.rssKiB), double(pss) / double(minimal.pssKiB),
                    qPrintable(wakeups), qPrintable(threads));
    };
    const auto idle = [](const Figures &f) {
        return std::pair{QString::number(f.wakeupsPerSecond, 'f', 2), QString::number(f.threads)};
    };
    for (const auto &[name, f] : {std::pair{"minimal Qt tray program (reference)", minimal},
                                  std::pair{"Hollowmere, signed out (launch screen)", signedOut},
                                  std::pair{"Hollowmere, signed in, disconnected", signedIn}}) {
        const auto [wakeups, threads] = idle(f);
        row(name, f.registeredMs, f.rssKiB, f.pssKiB, wakeups, threads);
    }
    if (signedIn.panelClosedRssKiB <= 0) {
        std::fprintf(stderr, "the main panel could not be opened and closed\n");
        return 1;
    }
    row("Hollowmere, main panel opened once and closed", -1, signedIn.panelClosedRssKiB,
        signedIn.panelClosedPssKiB, QString(), QString());
    std::printf("main panel open: RSS %.1f MiB\n", double(signedIn.panelOpenRssKiB) / 1024.0);
    return 0;
}

#include "ShellStartupBench.moc"
