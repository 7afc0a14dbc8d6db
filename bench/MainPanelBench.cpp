// Memory and time to paint of the main panel.
//
//     build/bench/hm-bench-panel [runs]
//
// Memory: four fresh processes, each settled on an idle event loop before its figures are
// read from /proc/self/smaps_rollup: the minimal Qt tray program (an application and a
// tray icon: the reference), the same with one text label window opened and closed (what
// drawing any text costs), the same with the client's managers and the panel's content
// built but never shown, and the panel opened once and closed through its window
// controller, as the tray click and the panel's closing do in the application (closing
// drops the panel's widget tree). Time: from the click (the panel is built and shown) to
// the end of the status display's first paint, for the process's first opening and for
// later ones. Runs offscreen unless a display is set. Prints Markdown table rows.
#include "HMDisplayViewController.h"
#include "HMMainViewController.h"
#include "HMMainWindowController.h"
#include "HMProcFile.h"
#include "HMScreenFactory.h"
#include "HMScreenWorld.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QProcess>
#include <QSystemTrayIcon>
#include <QTextStream>

#include <algorithm>
#include <cstdio>

namespace {

struct Memory
{
    qint64 rssKiB = 0;
    qint64 pssKiB = 0;
};

Memory ownMemory()
{
    const QString rollup = QStringLiteral("/proc/self/smaps_rollup");
    Memory memory;
    memory.rssKiB = HMProcFile::fieldKiB(rollup, "Rss:");
    memory.pssKiB = HMProcFile::fieldKiB(rollup, "Pss:");
    return memory;
}

void settle()
{
    QElapsedTimer idle;
    idle.start();
    while (idle.elapsed() < 300) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
}

// Ends the timer when the watched widget's paint event has been handled.
class PaintWatch : public QObject
{
public:
    explicit PaintWatch(QWidget *widget) : m_widget(widget) { widget->installEventFilter(this); }
    bool painted = false;

protected:
    bool eventFilter(QObject *object, QEvent *event) override
    {
        if (object == m_widget && event->type() == QEvent::Paint && !painted) {
            m_widget->removeEventFilter(this);
            QCoreApplication::sendEvent(m_widget, event); // paint now, then count it
            painted = true;
            return true;
        }
        return false;
    }

private:
    QWidget *m_widget;
};

// The click's work: the controller builds the content, then shows the window.
double showAndTime(HMMainWindowController &panel)
{
    QElapsedTimer clock;
    clock.start();
    panel.showWindowAt(QPoint(600, 0));
    PaintWatch watch(panel.content()->findChild<HMDisplayViewController *>());
    while (!watch.painted) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
    return double(clock.nsecsElapsed()) / 1e6;
}

void closeAndSettle(HMMainWindowController &panel)
{
    panel.closeWindow();
    settle();
}

int childMode(const QString &mode)
{
    QSystemTrayIcon tray(QIcon(QStringLiteral(":/images/tray_off.png")));
    tray.show();
    std::unique_ptr<HMScreenWorld> world;
    std::unique_ptr<HMMainViewController> content;
    std::unique_ptr<HMMainWindowController> panel;
    if (mode == QLatin1String("label")) {
        // The cost of drawing any text at all: fonts, font configuration, glyph caches.
        QLabel label(QStringLiteral("Hollowmere"));
        label.show();
        settle();
        label.close();
    } else if (mode != QLatin1String("tray")) {
        world = std::make_unique<HMScreenWorld>();
        if (mode == QLatin1String("opened")) {
            HMScreenFactory::setContext(world->context());
            panel = std::make_unique<HMMainWindowController>();
            showAndTime(*panel);
            settle();
            closeAndSettle(*panel);
        } else {
            content = std::make_unique<HMMainViewController>(world->context());
        }
    }
    settle();
    const Memory memory = ownMemory();
    std::printf("%lld %lld\n", memory.rssKiB, memory.pssKiB);
    return 0;
}

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() > 2 && args.at(1) == QLatin1String("--child")) {
        return childMode(args.at(2));
    }
    const int runs = args.size() > 1 ? std::max(1, args.at(1).toInt()) : 20;
    QTextStream out(stdout);

    out << "| process (settled, idle) | RSS (MiB) | PSS (MiB) | PSS over the tray program |\n"
        << "|---|---:|---:|---:|\n";
    double reference = 0;
    for (const auto &[mode, label] :
         {std::pair{"tray", "minimal Qt tray program (reference)"},
          {"label", "the same, one text label window opened once and closed"},
          {"built", "with the managers and the panel built, never shown"},
          {"opened", "with the panel opened once and closed"}}) {
        QProcess child;
        child.start(QCoreApplication::applicationFilePath(), {"--child", mode});
        if (!child.waitForFinished(60000) || child.exitCode() != 0) {
            std::fprintf(stderr, "hm-bench-panel: the %s process failed\n", mode);
            return 1;
        }
        const QList<QByteArray> figures = child.readAllStandardOutput().simplified().split(' ');
        const double rss = figures.value(0).toDouble() / 1024;
        const double pss = figures.value(1).toDouble() / 1024;
        if (reference == 0) {
            reference = pss;
        }
        out << "| " << label << " | " << QString::number(rss, 'f', 1) << " | "
            << QString::number(pss, 'f', 1) << " | " << QString::number(pss / reference, 'f', 2)
            << " |\n";
    }
    out << "\n| " << runs << " runs | median (ms) | min (ms) | max (ms) |\n|---|---:|---:|---:|\n";
    QList<double> first, again;
    for (int run = 0; run < runs; ++run) {
        HMScreenWorld world;
        HMScreenFactory::setContext(world.context());
        HMMainWindowController panel;
        (run == 0 ? first : again).append(showAndTime(panel));
        for (int reopen = 0; reopen < 3; ++reopen) {
            closeAndSettle(panel);
            again.append(showAndTime(panel));
        }
        closeAndSettle(panel);
    }
    if (first.isEmpty() || again.isEmpty()) {
        return 0;
    }
    for (const auto &[label, values] :
         {std::pair{"first opening in the process: build, show, status display painted", first},
          {"later openings (closing dropped the panel): build, show, painted", again}}) {
        out << "| " << label << " | " << QString::number(median(values), 'f', 1) << " | "
            << QString::number(*std::min_element(values.begin(), values.end()), 'f', 1) << " | "
            << QString::number(*std::max_element(values.begin(), values.end()), 'f', 1) << " |\n";
    }
    return 0;
}
