// Time to decision of the closest-server test for 1, 10 and 50 server groups.
//
//     build/bench/hm-bench-closest [runs]        (root: it builds a private echo lab)
//
// Every group's first host is a lab host with a known round trip: the fastest group
// answers after F ms (40 or 200), the others spread over F + 60 .. F + 560 ms, so the
// decision should come about F ms after the test starts, whatever the number of groups. Each run
// waits until every probe of the previous one is gone, so no late answer can decide the next run.
// Prints one Markdown table row per case.
#include "HMClosestServerManager.h"
#include "HMEchoLab.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QPointer>
#include <QTextStream>

#include <algorithm>
#include <cstdio>

namespace {

struct Case
{
    int groups;
    int fastestMs;
};

bool waitUntil(const std::function<bool()> &condition, int timeoutMs)
{
    QElapsedTimer waited;
    waited.start();
    while (!condition() && waited.elapsed() < timeoutMs) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return condition();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, QString::fromLocal8Bit(argv[1]).toInt()) : 10;
    QTextStream out(stdout);

    QString why;
    if (!HMEchoLab::enterPrivateNetwork(&why)) {
        std::fprintf(stderr, "hm-bench-closest needs root for its private network: %s\n",
                     qPrintable(why));
        return 2;
    }

    out << "| groups | fastest group's round trip | time to decision, median (min-max) | "
           "median over the round trip | right group |\n"
        << "|---:|---:|---:|---:|---:|\n";
    out.flush();

    for (const Case &c :
         {Case{1, 40}, Case{10, 40}, Case{50, 40}, Case{1, 200}, Case{10, 200}, Case{50, 200}}) {
        HMEchoLab lab;
        QVariantMap blocks;
        const int fastestIndex = c.groups / 2;
        const QString fastestKey = QStringLiteral("g%1").arg(fastestIndex, 2, 10, QLatin1Char('0'));
        QList<int> delays;
        for (int i = 0; i < c.groups; ++i) {
            delays << (i == fastestIndex ? c.fastestMs : c.fastestMs + 60 + (i * 500) / c.groups);
        }
        QString labError;
        const QStringList hosts = lab.addHosts(delays, false, &labError);
        if (hosts.isEmpty()) {
            std::fprintf(stderr, "lab: %s\n", qPrintable(labError));
            return 1;
        }
        for (int i = 0; i < c.groups; ++i) {
            const QVariantMap server{{QStringLiteral("host"), hosts.at(i)},
                                     {QStringLiteral("port"), 1194},
                                     {QStringLiteral("isUdp"), true}};
            blocks.insert(QStringLiteral("g%1").arg(i, 2, 10, QLatin1Char('0')),
                          QVariantList{server});
        }

        QList<QPointer<SimplePingHelper>> probes;
        HMClosestServerManager manager(
            nullptr, HMClock::system(), QStringLiteral("unused.test"),
            [&probes](const QString &host, QObject *target, SimplePingHelper::SuccessCallback s,
                      SimplePingHelper::FailureCallback f) {
                QPointer<SimplePingHelper> probe =
                    SimplePingHelper::ping(host, target, std::move(s), std::move(f));
                probes << probe;
                return [probe] {
                    if (probe) {
                        probe->killPing();
                    }
                };
            });

        QList<double> times;
        int right = 0;
        for (int run = 0; run < runs; ++run) {
            QString decided;
            QElapsedTimer clock;
            clock.start();
            qint64 decidedNs = -1;
            manager.initClosestTest(
                blocks, [&](const QString &key, const QVariantList &, const HMMaybeError &error) {
                    decidedNs = clock.nsecsElapsed();
                    decided = error ? QStringLiteral("error") : key;
                });
            waitUntil([&] { return decidedNs >= 0; }, 5000);
            waitUntil(
                [&] {
                    return std::all_of(
                        probes.cbegin(), probes.cend(),
                        [](const QPointer<SimplePingHelper> &p) { return p.isNull(); });
                },
                5000);
            probes.clear();
            if (decidedNs >= 0) {
                times << static_cast<double>(decidedNs) / 1e6;
            }
            right += decided == fastestKey ? 1 : 0;
        }
        std::sort(times.begin(), times.end());
        const double median = times.isEmpty() ? -1 : times.at(times.size() / 2);
        out << "| " << c.groups << " | " << c.fastestMs << " ms | "
            << QString::number(median, 'f', 1) << " ms ("
            << QString::number(times.value(0, -1), 'f', 1) << "-"
            << QString::number(times.value(times.size() - 1, -1), 'f', 1) << ") | +"
            << QString::number(median - c.fastestMs, 'f', 1) << " ms | " << right << "/" << runs
            << " |\n";
        out.flush();
    }
    return 0;
}
