// The commands that follow the application over time: the switch with --wait, and watch.
#include "HMCtlCommands.h"
#include "HMCtlText.h"
#include "HMVPNState.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

namespace {

// The tunnel's states as the interface numbers them: VPNState's values.
constexpr uint stateNumber(VPNState value)
{
    return static_cast<uint>(value);
}
constexpr uint kDisconnected = stateNumber(VPNState::Disconnected);
constexpr uint kDisconnecting = stateNumber(VPNState::Disconnecting);
constexpr uint kConnected = stateNumber(VPNState::Connected);
constexpr uint kConnecting = stateNumber(VPNState::Connecting);
constexpr uint kError = stateNumber(VPNState::Error);
constexpr uint kOutOfData = stateNumber(VPNState::OutOfData);
constexpr uint kNoConnection = stateNumber(VPNState::NoConnection);

} // namespace

int HMCtlCommands::switchTunnel(bool on, bool wait, int timeoutSeconds)
{
    if (const auto failure =
            m_bus.call(on ? QStringLiteral("Connect") : QStringLiteral("Disconnect"))) {
        return fail(*failure);
    }
    if (!wait) {
        return HMCtlBus::Ok;
    }
    return on ? waitForState({kConnected}, {kError, kOutOfData, kNoConnection}, timeoutSeconds)
              : waitForState({kDisconnected, kOutOfData, kNoConnection, kError}, {},
                             timeoutSeconds);
}

int HMCtlCommands::waitForState(const QList<uint> &targets, const QList<uint> &failures,
                                int timeoutSeconds)
{
    QEventLoop loop;
    int result = -1;
    bool sawProgress = false;
    const auto judge = [&](const QVariantMap &p) {
        if (result >= 0) {
            return;
        }
        const uint state = p.value(QStringLiteral("State")).toUInt();
        const QString error = p.value(QStringLiteral("LastError")).toString();
        if (state == kConnecting || state == kDisconnecting) {
            sawProgress = true;
        }
        if (targets.contains(state)) {
            result = HMCtlBus::Ok;
        } else if (!error.isEmpty() || failures.contains(state) ||
                   (sawProgress && state == kDisconnected && !targets.contains(state))) {
            m_err << "hollowmerectl: "
                  << (error.isEmpty() ? p.value(QStringLiteral("StateText")).toString() : error)
                  << Qt::endl;
            result = HMCtlBus::Refused;
        }
        if (result >= 0) {
            loop.quit();
        }
    };
    // Signals carry only what changed; the full picture is read again on each one, and once
    // a second in case a signal was missed.
    QVariantMap p;
    const auto poll = [&]() {
        if (const auto failure = m_bus.properties(&p)) {
            result = fail(*failure);
            loop.quit();
            return;
        }
        judge(p);
    };
    m_bus.watch([&](const QVariantMap &) { poll(); });
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, &loop, poll);
    ticker.start(1000);
    QTimer::singleShot(timeoutSeconds * 1000, &loop, [&] {
        if (result < 0) {
            m_err << "hollowmerectl: gave up waiting after " << timeoutSeconds << " s" << Qt::endl;
            result = HMCtlBus::TimedOut;
        }
        loop.quit();
    });
    poll();
    if (result < 0) {
        loop.exec();
    }
    return result;
}

int HMCtlCommands::watch(bool json)
{
    const auto print = [this, json](const QVariantMap &changed) {
        if (json) {
            m_out << QJsonDocument(QJsonObject::fromVariantMap(changed))
                         .toJson(QJsonDocument::Compact)
                  << Qt::endl;
            return;
        }
        const QString time = QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss"));
        for (auto it = changed.constBegin(); it != changed.constEnd(); ++it) {
            // The number of a state says nothing to a person: its text comes in the same signal.
            if (it.key() != QLatin1String("State")) {
                m_out << time << " " << it.key() << ": " << hm_ctl_text(it.value()) << Qt::endl;
            }
        }
    };
    if (!m_bus.watch(print)) {
        return fail(
            {HMCtlBus::NotRunning, QStringLiteral("Could not follow Hollowmere's changes")});
    }
    // The state as it is when watching begins: every change after it is printed.
    QVariantMap now;
    if (const auto failure = m_bus.properties(&now)) {
        return fail(*failure);
    }
    print({{QStringLiteral("State"), now.value(QStringLiteral("State"))},
           {QStringLiteral("StateText"), now.value(QStringLiteral("StateText"))}});
    // Ends when the application leaves the bus or on Ctrl-C (the default action).
    QTimer alive;
    QObject::connect(&alive, &QTimer::timeout, [this] {
        if (m_bus.reach()) {
            m_err << "hollowmerectl: Hollowmere has quit" << Qt::endl;
            QCoreApplication::exit(HMCtlBus::NotRunning);
        }
    });
    alive.start(2000);
    return QCoreApplication::exec();
}
