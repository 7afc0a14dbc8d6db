#include "HMLogCapture.h"
#include "HMTestEnvironment.h"
#include "HMVPNConnectionSequence.h"
#include "HMVPNTestRig.h"

#include <QSignalSpy>
#include <QTest>
#include <functional>

namespace {
const QString kConnected26 =
    QStringLiteral(">STATE:1795224601,CONNECTED,SUCCESS,10.8.0.6,10.99.0.1,1194,,");

// One row of the management-line rules: what the manager sends back, asks the helper for and
// records after `lines` arrive in state `initial`.
void rule(const char *name, VPNState initial, const QStringList &lines, VPNState expected,
          const QStringList &commands = {}, const QStringList &helper = {},
          const QString &connectedIp = {}, const QString &tap = {},
          const QString &token = QStringLiteral("tok3n"), qint64 allowance = 100 * kMiB)
{
    QTest::newRow(name) << initial << allowance << token << lines << expected << commands << helper
                        << connectedIp << tap;
}
} // namespace

class HMVPNManagerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void stateStrings()
    {
        const QStringList texts{
            "Disconnected", "Disconnecting\u2026", "Connected",    "Connecting\u2026",
            "Error",        "Out of Data",         "No Connection"};
        for (unsigned value = 0; value <= unsigned(texts.size()); ++value) {
            // One past the table gives the empty text.
            QCOMPARE(vpn_state_to_string(static_cast<VPNState>(value)), texts.value(int(value)));
        }
    }

    void openingDialogue()
    {
        HMVPNTestRig rig;
        QVERIFY(rig.attach());
        QCOMPARE(rig.server.commands(),
                 (QStringList{"state", "log on", "state on", "hold release", "bytecount 2"}));
        // The greeting is read and changes nothing; commands that went out in time do not trip
        // the one-second write time-out.
        rig.clock.advance(1000);
        QVERIFY(rig.sync());
        QCOMPARE(rig.vpn->state(), VPNState::Disconnected);
        QVERIFY(rig.states.isEmpty());
    }

    void managementRules_data()
    {
        QTest::addColumn<VPNState>("initial");
        QTest::addColumn<qint64>("allowance");
        QTest::addColumn<QString>("token");
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<VPNState>("expected");
        QTest::addColumn<QStringList>("commands");
        QTest::addColumn<QStringList>("helper");
        QTest::addColumn<QString>("connectedIp");
        QTest::addColumn<QString>("tap");

        const auto D = VPNState::Disconnected;
        const auto C = VPNState::Connected;
        const auto G = VPNState::Connecting;
        const QStringList stop{"stopVPN", "stopDNSProxy"};
        // The new attempt asks for OpenVPN while its token renewal is still out.
        const QStringList restart = stop + QStringList{"startVPN"};
        const QStringList credentials{"username \"Auth\" tok3n", "password \"Auth\" tok3n"};
        const QString need = QStringLiteral(">PASSWORD:Need 'Auth' username/password");

        rule("holdAnsweredAfterTheFirst", C, {">HOLD:Waiting for hold release:10"}, C,
             {"hold release"});
        rule("connectingLine", D, {">CONNECTING"}, G);
        rule("passwordQueryAnsweredWithToken", G, {need}, G, credentials);
        rule("passwordFailureAnsweredAgainNotReconnected", G,
             {">PASSWORD:Verification Failed: 'Auth' ['AUTH_FAILED']"}, G, credentials);
        rule("tokenWithBlankIsQuoted", G, {need}, G,
             {"username \"Auth\" \"a b\\\"c\"", "password \"Auth\" \"a b\\\"c\""}, {}, {}, {},
             "a b\"c");
        rule("tokenWithLineBreakNotSent", G, {need}, G, {}, {}, {}, {}, "tok\nsignal SIGTERM");
        rule("connectionResetHangsUp", C, {">WSAECONNRESET:"}, C, {"signal SIGHUP"});
        rule("managementSignalExitDisconnects", C,
             {">LOG:1700000000,,Signal received from management interface, exiting"}, D);
        rule("authFailedReconnects", C,
             {">LOG:1700000000,F,AUTH: Received control message: AUTH_FAILED"}, G, {}, restart);
        rule("authFailedBeatsStateRules", C, {">STATE:1700000000,EXITING,AUTH_FAILED,,,,,"}, G, {},
             restart);
        rule("stateReconnecting", C, {">STATE:1700000000,RECONNECTING,ping-restart,,,,,"}, G);
        rule("stateWait", D, {">STATE:1700000000,WAIT,,,,,,"}, G);
        rule("stateAuth", D, {">STATE:1700000000,AUTH,,,,,,"}, G);
        rule("stateAuthPending", D, {">STATE:1700000000,AUTH_PENDING,,,,,,"}, G);
        rule("stateGetConfig", D, {">STATE:1700000000,GET_CONFIG,,,,,,"}, G);
        rule("stateTcpConnectMatchesNothing", D, {">STATE:1700000000,TCP_CONNECT,,,,,,"}, D);
        rule("connectedErrorReconnects", C,
             {">STATE:1700000000,CONNECTED,ERROR,10.8.0.6,10.99.0.1,1194,,"}, G, {}, restart);
        rule("exitingWithAllowance", C, {">STATE:1700000000,EXITING,SIGTERM,,,,,"}, D);
        rule("exitingWithoutAllowance", C, {">STATE:1700000000,EXITING,SIGTERM,,,,,"},
             VPNState::OutOfData, {}, {}, {}, {}, "tok3n", 0);
        rule("connectedSuccessCurrentForm", G, {kConnected26}, C, {}, {}, "10.99.0.1");
        rule("connectedSuccessOldForm", G,
             {">STATE:1700000000,CONNECTED,SUCCESS,10.8.0.6,198.51.100.7"}, C, {}, {},
             "198.51.100.7");
        rule("connectedSuccessWrappedInLog", G,
             {">LOG:1700000000,,MANAGEMENT: "
              ">STATE:1700000000,CONNECTED,SUCCESS,10.8.0.6,10.99.0.2,1194,,"},
             C, {}, {}, "10.99.0.2");
        rule("connectedSuccessWhileConnectedIgnored", C, {kConnected26}, C);
        rule("stateCommandReplyIsNoStateLine", G,
             {"1700000000,CONNECTED,SUCCESS,10.8.0.6,10.99.0.1,1194,,", "END"}, G);
        rule("tunDeviceOpened", G, {">LOG:1700000000,,TUN/TAP device tun3 opened"}, G, {}, {}, {},
             "tun3");
        rule("byteCountCarryingHoldOnlyCounts", C, {">BYTECOUNT:0,0 >HOLD"}, C);
        rule("otherLinesIgnored", C,
             {"SUCCESS: real-time state notification set to ON", ">INFO:x", "\xff\xfe garbage"}, C);
    }

    void managementRules()
    {
        QFETCH(VPNState, initial);
        QFETCH(qint64, allowance);
        QFETCH(QString, token);
        QFETCH(QStringList, lines);
        QFETCH(VPNState, expected);
        QFETCH(QStringList, commands);
        QFETCH(QStringList, helper);
        QFETCH(QString, connectedIp);
        QFETCH(QString, tap);

        HMVPNTestRig rig(100 * kMiB);
        if (allowance != rig.account.allowance) {
            rig.account.setAllowance(allowance);
        }
        rig.account.token = token;
        // A reconnect's new attempt stays in Connecting.
        rig.account.holdTokenRequests = true;
        rig.helper.held = QStringList{"startVPN"};
        QVERIFY(rig.attach());
        rig.vpn->setState(initial);

        rig.server.sendLines(lines);
        if (helper.isEmpty()) {
            QVERIFY2(rig.sync(), "the management connection went away");
        } else {
            QTRY_VERIFY(rig.vpn->socket() == nullptr);
        }
        QTRY_COMPARE(rig.helper.actions(), helper);
        HMVPNTestRig::settle();

        QCOMPARE(rig.vpn->state(), expected);
        QStringList sent = rig.laterCommands();
        if (!helper.isEmpty()) {
            QCOMPARE(rig.account.tokenRequests, 1); // the reconnect started a new attempt
        } else {
            sent.removeLast(); // the barrier's own answer
        }
        QCOMPARE(sent, commands);
        QCOMPARE(rig.vpn->connectedIp(), connectedIp);
        QCOMPARE(rig.vpn->tapAdapter(), tap);
    }

    void linesSplitAcrossWrites()
    {
        HMVPNTestRig rig;
        QVERIFY(rig.attach());
        rig.vpn->setState(VPNState::Connecting);
        // A line cut in the middle of a word, finished in a write that also carries the next
        // line: only a reader that joins the halves and splits at CR LF sees CONNECTED,SUCCESS
        // and then the tunnel device.
        rig.server.send(">STATE:1700000000,CONNECTED,SUC");
        rig.server.send(
            "CESS,10.8.0.6,10.99.0.5,1194,,\r\n>LOG:1700000000,,TUN/TAP device tun1 opened\r\n");
        QVERIFY(rig.sync());
        QCOMPARE(rig.vpn->state(), VPNState::Connected);
        QCOMPARE(rig.vpn->connectedIp(), QStringLiteral("10.99.0.5"));
        QCOMPARE(rig.vpn->tapAdapter(), QStringLiteral("tun1"));
        QCOMPARE(rig.states, (QList<VPNState>{VPNState::Connecting, VPNState::Connected}));
    }

    void byteCounts_data()
    {
        QTest::addColumn<VPNState>("state");
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<qint64>("expected");
        QTest::addColumn<qint64>("totalPrevious");
        const auto row = [](const char *name, const QStringList &lines, qint64 expected,
                            qint64 total, VPNState state = VPNState::Connected) {
            QTest::newRow(name) << state << lines << expected << total;
        };
        row("firstReportCharged", {">BYTECOUNT:1000,2000"}, 9997000, 3000);
        // Each report charges the growth since the previous one against the account's figure.
        row("chargedByGrowthSinceLastReport", {">BYTECOUNT:1000,2000", ">BYTECOUNT:3000,4000"},
            9996000, 7000);
        row("smallerGrowthIsASmallIncreaseAndIgnored",
            {">BYTECOUNT:1000,2000", ">BYTECOUNT:1500,3500"}, 9997000, 5000);
        // A new OpenVPN process counts from zero again while totalPrevious stays: the computed
        // value rises above the meter by less than 40 MiB and is dropped.
        row("restartedCountsIgnored", {">BYTECOUNT:1000,2000", ">BYTECOUNT:10,20"}, 9997000, 30);
        // Exhausted: the connection goes down at once, the second line is never read.
        row("exhaustedClampedAtZero", {">BYTECOUNT:9000000,2000000", ">BYTECOUNT:9500000,2500000"},
            0, 11000000);
        row("malformedIgnored", {">BYTECOUNT:1000"}, 10000000, 0);
        row("hugeCountsSaturate", {">BYTECOUNT:9223372036854775807,9223372036854775807"}, 0,
            std::numeric_limits<qint64>::max());
        row("ignoredWhileConnecting", {">BYTECOUNT:60000000,60000000"}, 10000000, 0,
            VPNState::Connecting);
    }

    void byteCounts()
    {
        QFETCH(VPNState, state);
        QFETCH(QStringList, lines);
        QFETCH(qint64, expected);
        QFETCH(qint64, totalPrevious);

        HMVPNTestRig rig(100 * kMiB);
        // Decreases always pass the allowance rule, so the meter can be put anywhere below.
        rig.account.setAllowance(10000000);
        QCOMPARE(rig.vpn->bandwidthAvailable(), qint64(10000000));
        QVERIFY(rig.attach());
        rig.vpn->setState(state);

        rig.server.sendLines(lines);
        const bool exhausted = expected == 0;
        if (exhausted) {
            QTRY_VERIFY(rig.vpn->socket() == nullptr);
            QTRY_COMPARE(rig.helper.actions(), (QStringList{"stopVPN", "stopDNSProxy"}));
            HMVPNTestRig::settle();
        } else {
            QVERIFY(rig.sync());
        }
        QCOMPARE(rig.vpn->state(), exhausted ? VPNState::OutOfData : state);
        QCOMPARE(rig.outOfData, exhausted ? 1 : 0);
        QCOMPARE(rig.vpn->bandwidthAvailable(), expected);
        QCOMPARE(rig.vpn->totalPrevious(), totalPrevious);
        QCOMPARE(rig.account.allowance, qint64(10000000)); // the account's figure is never written
    }

    void allowanceRule_data()
    {
        QTest::addColumn<qint64>("current");
        QTest::addColumn<qint64>("offered");
        QTest::addColumn<qint64>("expected");
        QTest::addColumn<int>("outOfDataPosts");

        const auto row = [](const char *name, qint64 current, qint64 offered, qint64 expected,
                            int posts) {
            QTest::newRow(name) << current << offered << expected << posts;
        };
        row("smallIncreaseIgnored", 9000000, 9500000, 9000000, 0);
        row("increaseJustBelow40MiBIgnored", 9000000, 9000000 + 41943039, 9000000, 0);
        row("increaseOfExactly40MiBAccepted", 9000000, 9000000 + 41943040, 9000000 + 41943040, 0);
        row("decreaseAccepted", 9000000, 1, 1, 0);
        row("negativeClampedToZero", 9000000, -5, 0, 1);
        row("dropToZeroPosts", 9000000, 0, 0, 1);
        row("zeroToZeroPostsNothing", 0, 0, 0, 0);
    }

    void allowanceRule()
    {
        QFETCH(qint64, current);
        QFETCH(qint64, offered);
        QFETCH(qint64, expected);
        QFETCH(int, outOfDataPosts);

        HMVPNTestRig rig(100 * kMiB);
        rig.vpn->setBandwidthAvailable(current);
        QCOMPARE(rig.vpn->bandwidthAvailable(), current);
        rig.outOfData = 0;
        rig.vpn->setBandwidthAvailable(offered);
        QCOMPARE(rig.vpn->bandwidthAvailable(), expected);
        QCOMPARE(rig.outOfData, outOfDataPosts);
    }

    void initialAllowance_data()
    {
        QTest::addColumn<qint64>("accountAllowance");
        QTest::addColumn<qint64>("meter");
        QTest::addColumn<VPNState>("state");
        QTest::newRow("plenty") << 100 * kMiB << 100 * kMiB << VPNState::Disconnected;
        QTest::newRow("none") << qint64(0) << qint64(0) << VPNState::OutOfData;
        // From a meter of 0 anything under 40 MiB is a "small increase" and is dropped.
        QTest::newRow("belowTheTopUpSize") << 1 * kMiB << qint64(0) << VPNState::OutOfData;
    }

    void initialAllowance()
    {
        QFETCH(qint64, accountAllowance);
        QFETCH(qint64, meter);
        QFETCH(VPNState, state);
        HMVPNTestRig rig(accountAllowance);
        QCOMPARE(rig.vpn->bandwidthAvailable(), meter);
        QCOMPARE(rig.vpn->state(), state);
        QCOMPARE(rig.outOfData, 0);
    }

    void dnsProxyStartsOnceOnConnected()
    {
        HMVPNTestRig rig;
        rig.routing.supported = true;
        rig.routing.mode = 2;
        QVERIFY(rig.attach());
        rig.vpn->setState(VPNState::Connecting);
        rig.server.sendLines(
            {">LOG:1700000000,,TUN/TAP device tun0 opened", kConnected26, kConnected26});
        QVERIFY(rig.sync());
        QCOMPARE(rig.vpn->state(), VPNState::Connected);
        QCOMPARE(rig.helper.actions(), QStringList{"startDNSProxy"});
        QCOMPARE(rig.helper.requests.first().tap, QStringLiteral("tun0"));
        QCOMPARE(rig.helper.requests.first().mode, 2);

        HMVPNTestRig unsupported;
        unsupported.vpn->setState(VPNState::Connected);
        HMVPNTestRig::settle();
        QVERIFY(unsupported.helper.requests.isEmpty());
    }

    void observedValues_data()
    {
        QTest::addColumn<VPNState>("initial");
        QTest::addColumn<bool>("wish");
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<VPNState>("expected");
        QTest::addColumn<QStringList>("helper");
        QTest::addColumn<bool>("wishAfter");
        QTest::addColumn<int>("attempts");

        const auto D = VPNState::Disconnected;
        const auto C = VPNState::Connected;
        const auto G = VPNState::Connecting;
        const auto O = VPNState::OutOfData;
        const auto N = VPNState::NoConnection;
        const QStringList stop{"stopVPN", "stopDNSProxy"};
        const QStringList restart = stop + QStringList{"startVPN"};
        const auto row = [](const char *name, VPNState initial, const QStringList &steps,
                            VPNState expected, const QStringList &helper = {}, int attempts = 0,
                            bool wish = false, bool wishAfter = false) {
            QTest::newRow(name) << initial << wish << steps << expected << helper << wishAfter
                                << attempts;
        };
        row("countryChangeWhileConnectedReconnects", C, {"country"}, G, restart, 1);
        row("countryChangeWhileConnectingReconnects", G, {"country"}, G, restart, 1);
        row("countryChangeWhileDisconnectedIgnored", D, {"country"}, D);
        row("sameCountryIgnored", C, {"sameCountry"}, C);
        row("signOutWhileConnectedDisconnects", C, {"signOut"}, D, stop);
        row("signOutWhileConnectingIgnored", G, {"signOut"}, G);
        row("allowanceGoneWhileConnectedDisconnects", C, {"allowanceZero"}, O, stop);
        row("allowanceGoneWhileConnectingIsOutOfData", G, {"allowanceZero"}, O);
        row("allowanceRegainedWhileOutOfData", D, {"allowanceZero", "allowanceBack"}, D);
        row("topUpBelow40MiBStaysOutOfData", D, {"allowanceZero", "allowanceSmall"}, O);
        row("networkLostWhileConnected", C, {"unreachable"}, N, stop, 0, false, true);
        row("networkLostWhileConnectingIgnored", G, {"unreachable"}, G);
        row("networkLostWhileDisconnected", D, {"unreachable"}, N);
        // The start-up state is no return of the network: the start-up decides, later.
        row("firstReportWithWishWaitsForStartUp", D, {"reachable"}, D, {}, 0, true, true);
        row("networkBackWithoutWishRests", N, {"reachable"}, D);
        row("networkReportWhileConnectedIgnored", C, {"reachable"}, C);
        row("networkLostAndBack", C, {"unreachable", "reachable"}, G, restart, 1);
    }

    void observedValues()
    {
        QFETCH(VPNState, initial);
        QFETCH(bool, wish);
        QFETCH(QStringList, steps);
        QFETCH(VPNState, expected);
        QFETCH(QStringList, helper);
        QFETCH(bool, wishAfter);
        QFETCH(int, attempts);

        HMVPNTestRig rig(100 * kMiB);
        rig.account.holdTokenRequests = true;
        rig.helper.held = QStringList{"startVPN"};
        rig.account.reconnectWish = wish;
        rig.vpn->setState(initial);
        using Step = std::function<void(HMVPNTestRig &)>;
        const QHash<QString, Step> actions{
            {"country", [](HMVPNTestRig &r) { r.account.setCountry(QStringLiteral("DE")); }},
            {"sameCountry", [](HMVPNTestRig &r) { r.account.setCountry(r.account.country); }},
            {"signOut", [](HMVPNTestRig &r) { r.account.setLoggedIn(false); }},
            {"allowanceZero", [](HMVPNTestRig &r) { r.account.setAllowance(0); }},
            {"allowanceBack", [](HMVPNTestRig &r) { r.account.setAllowance(100 * kMiB); }},
            {"allowanceSmall", [](HMVPNTestRig &r) { r.account.setAllowance(kMiB); }},
            {"unreachable", [](HMVPNTestRig &r) { r.reachability.report(false); }},
            {"reachable", [](HMVPNTestRig &r) { r.reachability.report(true); }},
        };
        for (const QString &step : steps) {
            QVERIFY2(actions.contains(step), qPrintable(step));
            actions.value(step)(rig);
            HMVPNTestRig::settle();
        }
        QCOMPARE(rig.vpn->state(), expected);
        QCOMPARE(rig.helper.actions(), helper);
        QCOMPARE(rig.account.reconnectWish, wishAfter);
        QCOMPARE(rig.account.tokenRequests, attempts);
    }

    void disconnectOutcomes_data()
    {
        QTest::addColumn<bool>("stopFails");
        QTest::addColumn<bool>("proxyStopFails");
        QTest::addColumn<bool>("viaReconnect");
        QTest::newRow("clean") << false << false << false;
        QTest::newRow("helperCannotStopOpenVPN") << true << false << false;
        QTest::newRow("helperCannotStopProxy") << false << true << false;
        QTest::newRow("reconnectConnectsAgain") << false << false << true;
        QTest::newRow("reconnectDespiteStopError") << true << false << true;
        QTest::newRow("reconnectStopsAtProxyError") << false << true << true;
    }

    void disconnectOutcomes()
    {
        QFETCH(bool, stopFails);
        QFETCH(bool, proxyStopFails);
        QFETCH(bool, viaReconnect);

        HMLogCapture log;
        HMVPNTestRig rig;
        rig.account.holdTokenRequests = true;
        rig.helper.held = QStringList{"startVPN"};
        if (stopFails) {
            rig.helper.failing.insert("stopVPN", HMError::errorWithDescription("no such process"));
        }
        if (proxyStopFails) {
            rig.helper.failing.insert("stopDNSProxy", HMError::errorWithDescription("proxy stuck"));
        }
        QVERIFY(rig.attach());
        rig.vpn->setState(VPNState::Connected);
        rig.states.clear();

        int completions = 0;
        HMMaybeError received;
        if (viaReconnect) {
            rig.vpn->reconnect();
        } else {
            rig.vpn->disconnectWithCompletion([&](const HMMaybeError &error) {
                ++completions;
                received = error;
            });
        }
        QCOMPARE(rig.vpn->state(), VPNState::Disconnecting);
        QVERIFY(rig.vpn->socket() == nullptr);
        QTRY_COMPARE(rig.helper.actions().mid(0, 2), (QStringList{"stopVPN", "stopDNSProxy"}));
        HMVPNTestRig::settle();

        QCOMPARE(log.contains("Could not stop daemon: no such process"), stopFails);
        QCOMPARE(log.contains("proxy stuck"), proxyStopFails);
        if (viaReconnect) {
            const bool connectsAgain = !proxyStopFails;
            QCOMPARE(rig.account.tokenRequests, connectsAgain ? 1 : 0);
            QCOMPARE(rig.helper.count("startVPN"), connectsAgain ? 1 : 0);
            QCOMPARE(rig.states.last(),
                     connectsAgain ? VPNState::Connecting : VPNState::Disconnected);
        } else {
            QCOMPARE(rig.helper.actions().size(), 2);
            QCOMPARE(completions, 1);
            QCOMPARE(bool(received), proxyStopFails);
            // The resting state is reached whatever the helper said.
            QCOMPARE(rig.states,
                     (QList<VPNState>{VPNState::Disconnecting, VPNState::Disconnected}));
        }
    }

    void unexpectedDrop_data()
    {
        QTest::addColumn<VPNState>("initial");
        QTest::addColumn<QStringList>("lastLines");
        QTest::addColumn<bool>("wish");
        QTest::addColumn<QList<VPNState>>("states");

        const QList<VPNState> toRest{VPNState::Disconnecting, VPNState::Disconnected};
        QTest::newRow("whileConnected") << VPNState::Connected << QStringList() << false << toRest;
        QTest::newRow("whileConnectedReconnectWishKept")
            << VPNState::Connected << QStringList() << true << toRest;
        QTest::newRow("whileConnectingWithoutAttempt")
            << VPNState::Connecting << QStringList() << false << toRest;
        // OpenVPN said goodbye first: its last lines are handled, then only the helper cleans up.
        QTest::newRow("afterExitingLine")
            << VPNState::Connected << QStringList{">STATE:1700000000,EXITING,SIGTERM,,,,,"} << false
            << QList<VPNState>{VPNState::Disconnected};
        QTest::newRow("whileResting")
            << VPNState::Error << QStringList() << false << QList<VPNState>();
    }

    void unexpectedDrop()
    {
        QFETCH(VPNState, initial);
        QFETCH(QStringList, lastLines);
        QFETCH(bool, wish);
        QFETCH(QList<VPNState>, states);

        HMLogCapture log;
        HMVPNTestRig rig;
        rig.account.reconnectWish = wish;
        QVERIFY(rig.attach());
        rig.vpn->setState(initial);
        rig.states.clear();

        rig.server.sendLines(lastLines);
        rig.server.closeClient();
        QTRY_VERIFY(rig.vpn->socket() == nullptr);
        QTRY_COMPARE(rig.helper.actions(), (QStringList{"stopVPN", "stopDNSProxy"}));
        HMVPNTestRig::settle();

        QCOMPARE(rig.states, states);
        QCOMPARE(rig.account.reconnectWish, wish);
        QCOMPARE(rig.account.tokenRequests, 0);
        QVERIFY(log.contains("Lost the connection to OpenVPN"));
        QCOMPARE(rig.connectionDidFail, 0);
    }
};

QTEST_GUILESS_MAIN(HMVPNManagerTest)
#include "HMVPNManagerTest.moc"
