#include "HMVPNConnectionSequence.h"
#include "HMLogCapture.h"
#include "HMTestEnvironment.h"
#include "HMVPNTestRig.h"

#include <QTest>

namespace {
struct Outcome
{
    int completions = 0;
    HMMaybeError error;
    HMVPNManager::Completion callback()
    {
        return [this](const HMMaybeError &e) {
            ++completions;
            error = e;
        };
    }
};

} // namespace

class HMVPNConnectionSequenceTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void backOff_data()
    {
        QTest::addColumn<QString>("failure");
        QTest::addColumn<bool>("secondRequest");
        QTest::newRow("tokenRefreshFails") << QStringLiteral("token") << false;
        QTest::newRow("helperCannotStartOpenVPN") << QStringLiteral("helper") << false;
        QTest::newRow("managementSocketRefuses") << QStringLiteral("management") << false;
        // A second switch-on while the first attempt runs joins it: still five attempts,
        // each request completed once, one failure notification.
        QTest::newRow("secondRequestJoins") << QStringLiteral("helper") << true;
    }

    void backOff()
    {
        QFETCH(QString, failure);
        QFETCH(bool, secondRequest);
        HMLogCapture log;
        HMVPNTestRig rig;
        const HMError error = HMError::errorWithDescription(QStringLiteral("attempt failed"));
        if (failure == QLatin1String("token")) {
            rig.account.tokenError = error;
        } else if (failure == QLatin1String("helper")) {
            rig.helper.failing.insert(QStringLiteral("startVPN"), error);
        } else {
            rig.server.stopListening();
        }
        Outcome outcome;
        QList<qint64> times;
        rig.center.addObserverForName(HMVPNManager::kDidStartConnectingNotification,
                                      [&] { times.append(rig.clock.monotonicMs()); });
        rig.vpn->connectWithCompletion(outcome.callback());
        Outcome joined;
        if (secondRequest) {
            rig.vpn->connectWithCompletion(joined.callback());
        }
        for (int guard = 0; guard < 10 && rig.vpn->state() != VPNState::Error; ++guard) {
            QVERIFY(QTest::qWaitFor(
                [&] {
                    return rig.clock.pendingTimers() > 0 || rig.vpn->state() == VPNState::Error;
                },
                5000));
            if (rig.vpn->state() != VPNState::Error) {
                rig.clock.advance(rig.clock.nextDueMs() - rig.clock.monotonicMs());
            }
        }
        QCOMPARE(times, (QList<qint64>{0, 1000, 3000, 7000, 15000}));
        QCOMPARE(rig.vpn->state(), VPNState::Error);
        QCOMPARE(outcome.completions, 1);
        QVERIFY(outcome.error);
        QCOMPARE(rig.connectionDidFail, 1);
        QCOMPARE(rig.vpn->connectionSequence()->numConnectionAttempts(), 5u);
        QCOMPARE(joined.completions, secondRequest ? 1 : 0);

        // Nothing is left scheduled: more time brings no sixth attempt.
        rig.clock.advance(120000);
        HMVPNTestRig::settle();
        QCOMPARE(times.size(), 5);
        QCOMPARE(outcome.completions, 1);
    }

    void disconnectDuringBackOff()
    {
        HMVPNTestRig rig;
        rig.helper.failing.insert(QStringLiteral("startVPN"),
                                  HMError::errorWithDescription(QStringLiteral("no")));
        Outcome outcome;
        rig.vpn->connectWithCompletion(outcome.callback());
        QTRY_COMPARE(rig.clock.pendingTimers(), 1);
        QCOMPARE(rig.vpn->state(), VPNState::Connecting);

        rig.vpn->disconnect();
        QTRY_COMPARE(rig.helper.actions(), (QStringList{"startVPN", "stopVPN", "stopDNSProxy"}));
        HMVPNTestRig::settle();
        QCOMPARE(rig.vpn->state(), VPNState::Disconnected);

        rig.clock.advance(60000);
        HMVPNTestRig::settle();
        QCOMPARE(rig.vpn->state(), VPNState::Disconnected);
        QCOMPARE(rig.didStartConnecting, 1);
        QCOMPARE(rig.helper.count(QStringLiteral("startVPN")), 1);
        QCOMPARE(outcome.completions, 0);
        QCOMPARE(rig.connectionDidFail, 0);
    }

    void unreachableFailsAtOnce()
    {
        HMLogCapture log;
        HMVPNTestRig rig;
        rig.reachability.reachable = false;
        rig.helper.failing.insert(QStringLiteral("startVPN"),
                                  HMError::errorWithDescription(QStringLiteral("network is down")));
        Outcome outcome;
        rig.vpn->connectWithCompletion(outcome.callback());
        QTRY_COMPARE(rig.vpn->state(), VPNState::Error);
        HMVPNTestRig::settle();
        QCOMPARE(rig.didStartConnecting, 1);
        QCOMPARE(outcome.completions, 1);
        QCOMPARE(outcome.error->localizedDescription(), QStringLiteral("network is down"));
        QCOMPARE(rig.connectionDidFail, 1);
        QCOMPARE(rig.clock.pendingTimers(), 0);
        QVERIFY(log.contains(QStringLiteral("network is down")));
    }

    void closestChoice_data()
    {
        QTest::addColumn<QString>("countryCode");
        QTest::addColumn<bool>("withGroups");
        QTest::addColumn<bool>("testFails");
        QTest::addColumn<int>("tests");
        QTest::addColumn<int>("starts");
        QTest::addColumn<QString>("closestCountry");

        QTest::newRow("chosenCountryRunsNoTest") << "7" << true << false << 0 << 1 << "";
        QTest::newRow("closestRunsTheTest") << "-1" << true << false << 1 << 1 << "DE";
        QTest::newRow("closestWithoutGroupsRunsNoTest") << "-1" << false << false << 0 << 1 << "";
        QTest::newRow("failedTestLeavesAttemptConnecting") << "-1" << true << true << 1 << 0 << "";
    }

    void closestChoice()
    {
        QFETCH(QString, countryCode);
        QFETCH(bool, withGroups);
        QFETCH(bool, testFails);
        QFETCH(int, tests);
        QFETCH(int, starts);
        QFETCH(QString, closestCountry);

        HMVPNTestRig rig;
        rig.helper.held = QStringList{"startVPN"};
        rig.account.countryCode = countryCode;
        const QVariantList deServers{
            QVariantMap{{"host", "de1.example"}, {"port", 1194}, {"isUdp", true}}};
        if (withGroups) {
            rig.account.groups = {{"DE", deServers},
                                  {"FR", QVariantList{QVariantMap{{"host", "fr1.example"}}}}};
        }
        rig.closest.country = QStringLiteral("DE");
        rig.closest.servers = deServers;
        if (testFails) {
            rig.closest.error =
                HMError::errorWithDescription(QStringLiteral("Couldn't ping servers"));
        }
        Outcome outcome;
        rig.vpn->connectWithCompletion(outcome.callback());
        QTRY_COMPARE(rig.account.closestCountry,
                     closestCountry.isEmpty() ? QString() : closestCountry);
        if (starts) {
            QTRY_COMPARE(rig.helper.count(QStringLiteral("startVPN")), starts);
        } else {
            QTRY_COMPARE(rig.closest.tests.size(), tests);
        }
        HMVPNTestRig::settle();

        QCOMPARE(rig.closest.tests.size(), tests);
        if (tests) {
            QCOMPARE(rig.closest.tests.first(), rig.account.groups);
        }
        QCOMPARE(rig.helper.count(QStringLiteral("startVPN")), starts);
        const bool serversReplaced = tests && !testFails;
        QCOMPARE(rig.account.setVpnServersCalls, serversReplaced ? 1 : 0);
        if (serversReplaced) {
            QCOMPARE(rig.account.servers, deServers);
        }
        QCOMPARE(rig.vpn->state(), VPNState::Connecting);
        QCOMPARE(outcome.completions, 0);
        QCOMPARE(rig.clock.pendingTimers(), 0);
    }

    void outOfDataBeforeStart()
    {
        HMVPNTestRig rig(0);
        // The sign-in reply that brings the token leaves the allowance empty.
        rig.account.beforeTokenAnswer = [&] { rig.account.setAllowance(0); };
        Outcome outcome;
        rig.vpn->connectWithCompletion(outcome.callback());
        QTRY_COMPARE(outcome.completions, 1);
        HMVPNTestRig::settle();
        QCOMPARE(outcome.error->localizedDescription(), QStringLiteral("Out of Data"));
        QCOMPARE(rig.connectionDidFail, 1);
        QCOMPARE(rig.vpn->state(), VPNState::OutOfData);
        QVERIFY(rig.helper.requests.isEmpty());
    }

    // With a fixed country OpenVPN is started while the token renewal is out; whatever the
    // renewal brings ends the attempt as it would have one step after the other.
    void renewalBesideTheStart_data()
    {
        QTest::addColumn<QString>("renewal");
        QTest::addColumn<QStringList>("actions");
        QTest::addColumn<VPNState>("state");
        QTest::addColumn<bool>("answered");
        QTest::addColumn<int>("failures");

        const auto G = VPNState::Connecting;
        QTest::newRow("freshTokenAnswersTheWaitingPrompt")
            << "fresh" << QStringList{"startVPN"} << G << true << 0;
        QTest::newRow("failedRenewalStopsOpenVPN")
            << "failed" << QStringList{"startVPN", "stopVPN"} << G << false << 0;
        QTest::newRow("newServerListRestartsOpenVPN")
            << "servers" << QStringList{"startVPN", "stopVPN", "startVPN"} << G << true << 0;
        QTest::newRow("allowanceGoneStopsOpenVPN")
            << "allowance" << QStringList{"startVPN", "stopVPN"} << VPNState::OutOfData << false
            << 1;
    }

    void renewalBesideTheStart()
    {
        QFETCH(QString, renewal);
        QFETCH(QStringList, actions);
        QFETCH(VPNState, state);
        QFETCH(bool, answered);
        QFETCH(int, failures);
        HMLogCapture log;
        HMVPNTestRig rig;
        rig.account.holdTokenRequests = true;
        rig.account.token = QStringLiteral("stale");
        rig.account.servers = {QVariantMap{{"host", "a.example"}, {"port", 1194}}};
        Outcome outcome;
        rig.vpn->connectWithCompletion(outcome.callback());
        QTRY_COMPARE(rig.server.commands().size(), 5);
        QCOMPARE(rig.account.tokenRequests, 1);
        rig.server.sendLines({QStringLiteral(">PASSWORD:Need 'Auth' username/password")});
        QVERIFY(rig.sync());
        QCOMPARE(rig.laterCommands(), QStringList{"hold release"}); // the prompt waits

        rig.account.token = QStringLiteral("fresh");
        if (renewal == QLatin1String("servers")) {
            rig.account.servers = {QVariantMap{{"host", "b.example"}, {"port", 1194}}};
        } else if (renewal == QLatin1String("allowance")) {
            rig.account.setAllowance(0);
        }
        rig.account.heldTokenRequests.takeFirst()(
            renewal == QLatin1String("failed")
                ? HMMaybeError(HMError::errorWithDescription(QStringLiteral("refused")))
                : std::nullopt);
        QTRY_COMPARE(rig.helper.actions(), actions);
        if (renewal == QLatin1String("servers")) {
            // The OpenVPN started again with the new list prompts again.
            QTRY_COMPARE(rig.server.commands().size(), 11);
            rig.server.sendLines({QStringLiteral(">PASSWORD:Need 'Auth' username/password")});
        }
        HMVPNTestRig::settle();
        const QString password = QStringLiteral("password \"Auth\" fresh");
        QTRY_COMPARE(rig.server.commands().contains(password), answered);
        QCOMPARE(rig.server.commands().filter(QStringLiteral("stale")), QStringList());
        QCOMPARE(rig.vpn->state(), state);
        QCOMPARE(rig.vpn->socket() != nullptr, answered);
        QCOMPARE(rig.connectionDidFail, failures);
        QCOMPARE(outcome.completions, failures);
        // Only the failed renewal retries, after the first back-off step.
        rig.clock.advance(1000);
        HMVPNTestRig::settle();
        QCOMPARE(rig.account.tokenRequests, renewal == QLatin1String("failed") ? 2 : 1);
    }

    void cancelledAnswersIgnored_data()
    {
        QTest::addColumn<QString>("pending");
        QTest::addColumn<QStringList>("actions");
        const QStringList stops{"stopVPN", "stopDNSProxy"};
        QTest::newRow("tokenRefresh") << QStringLiteral("token") << stops;
        // The closest-server answer arrives after the switch-off: nothing is started.
        QTest::newRow("closestTest") << QStringLiteral("closest") << stops;
        // OpenVPN started for the switched-off attempt is stopped again.
        QTest::newRow("helperStart")
            << QStringLiteral("startVPN")
            << QStringList{"startVPN", "stopVPN", "stopDNSProxy", "stopVPN"};
        // A fixed country: both are out at once when the switch-off comes.
        QTest::newRow("tokenBesideHelperStart")
            << QStringLiteral("both")
            << QStringList{"startVPN", "stopVPN", "stopDNSProxy", "stopVPN"};
    }

    void cancelledAnswersIgnored()
    {
        QFETCH(QString, pending);
        QFETCH(QStringList, actions);
        HMVPNTestRig rig;
        const bool both = pending == QLatin1String("both");
        rig.account.holdTokenRequests = pending == QLatin1String("token") || both;
        rig.closest.hold = pending == QLatin1String("closest");
        if (!both) {
            rig.account.countryCode = QStringLiteral("-1");
            rig.account.groups = {{"DE", QVariantList{QVariantMap{{"host", "de1.example"}}}}};
        }
        if (pending == QLatin1String("startVPN") || both) {
            rig.helper.held = QStringList{"startVPN"};
        }
        Outcome outcome;
        rig.vpn->connectWithCompletion(outcome.callback());
        QTRY_VERIFY(rig.account.tokenRequests == 1 &&
                    (pending != QLatin1String("closest") || rig.closest.held.size() == 1) &&
                    (pending != QLatin1String("startVPN") ||
                     rig.helper.count(QStringLiteral("startVPN")) == 1) &&
                    (!both || rig.helper.count(QStringLiteral("startVPN")) == 1));
        rig.vpn->disconnect();
        QTRY_COMPARE(rig.vpn->state(), VPNState::Disconnected);

        if (both) {
            rig.helper.release(QStringLiteral("startVPN"));
            rig.account.heldTokenRequests.takeFirst()(std::nullopt);
        } else if (pending == QLatin1String("token")) {
            rig.account.heldTokenRequests.takeFirst()(std::nullopt);
        } else if (pending == QLatin1String("closest")) {
            rig.closest.held.takeFirst()(QStringLiteral("DE"), {}, std::nullopt);
        } else {
            rig.helper.release(QStringLiteral("startVPN"));
        }
        HMVPNTestRig::settle();
        QCOMPARE(rig.vpn->state(), VPNState::Disconnected);
        QCOMPARE(rig.helper.actions(), actions);
        QVERIFY(rig.vpn->socket() == nullptr);
        QVERIFY(!rig.server.hasClient());
        QCOMPARE(outcome.completions, 0);
    }

    void refusedTokensEndInError()
    {
        HMLogCapture log;
        HMVPNTestRig rig;
        rig.vpn->connect();
        for (int round = 1; round <= HMVPNManager::kMaximumRefusedTokens; ++round) {
            QTRY_COMPARE(rig.server.commands().size(), 5 * round);
            QCOMPARE(rig.account.tokenRequests, round);
            rig.server.sendLines({">LOG:1795224601,,AUTH: Received control message: AUTH_FAILED"});
            QTRY_VERIFY(rig.account.tokenRequests > round || rig.vpn->state() == VPNState::Error);
        }
        QCOMPARE(rig.vpn->state(), VPNState::Error);
        HMVPNTestRig::settle();
        QCOMPARE(rig.account.tokenRequests, HMVPNManager::kMaximumRefusedTokens);
        QCOMPARE(rig.connectionDidFail, 1);
        QCOMPARE(rig.helper.actions().mid(rig.helper.actions().size() - 2),
                 (QStringList{"stopVPN", "stopDNSProxy"}));
        QVERIFY(log.contains(QStringLiteral("refused 3 freshly renewed tokens")));

        // A switch-on of the user's own starts afresh.
        rig.vpn->connect();
        QTRY_COMPARE(rig.account.tokenRequests, HMVPNManager::kMaximumRefusedTokens + 1);
    }

    void quitWritesTheStopAndEndsTheAttempt()
    {
        HMVPNTestRig rig;
        rig.helper.held = QStringList{"startVPN"};
        rig.vpn->connect();
        QTRY_COMPARE(rig.helper.count(QStringLiteral("startVPN")), 1);
        rig.vpn->stopBeforeExit();
        QCOMPARE(rig.helper.actions(), (QStringList{"startVPN", "stopBeforeExit"}));
        // The attempt is over: its late answer opens no management connection, and the
        // OpenVPN it reports is stopped again.
        rig.helper.release(QStringLiteral("startVPN"));
        HMVPNTestRig::settle();
        QVERIFY(!rig.server.hasClient());
        QCOMPARE(rig.helper.actions(), (QStringList{"startVPN", "stopBeforeExit", "stopVPN"}));
    }

    void managementLostBeforeConnectedRetries()
    {
        HMLogCapture log;
        HMVPNTestRig rig;
        Outcome outcome;
        rig.vpn->connectWithCompletion(outcome.callback());
        QTRY_VERIFY(rig.server.hasClient());
        QTRY_COMPARE(rig.server.commands().size(), 5);
        // OpenVPN dies during the handshake.
        rig.server.sendLines({">STATE:1700000000,WAIT,,,,,,"});
        rig.server.closeClient();
        QTRY_VERIFY(rig.vpn->socket() == nullptr);
        QTRY_COMPARE(rig.helper.actions(), (QStringList{"startVPN", "stopVPN"}));
        QCOMPARE(rig.vpn->state(), VPNState::Connecting);
        QCOMPARE(rig.didStartConnecting, 1);

        // The retry comes after the first back-off step and reaches OpenVPN again.
        rig.clock.advance(999);
        HMVPNTestRig::settle();
        QCOMPARE(rig.didStartConnecting, 1);
        rig.clock.advance(1);
        QCOMPARE(rig.didStartConnecting, 2);
        QTRY_VERIFY(rig.server.hasClient());
        QCOMPARE(outcome.completions, 0);
        QVERIFY(log.contains(QStringLiteral("Lost the connection to OpenVPN")));
    }

    void successNeverCompletes()
    {
        HMVPNTestRig rig;
        Outcome outcome;
        rig.vpn->connectWithCompletion(outcome.callback());
        QTRY_COMPARE(rig.server.commands().size(), 5);
        rig.server.sendLines({">STATE:1795224601,CONNECTED,SUCCESS,10.8.0.6,10.99.0.1,1194,,"});
        QTRY_COMPARE(rig.vpn->state(), VPNState::Connected);
        HMVPNTestRig::settle();
        QCOMPARE(rig.vpn->connectedIp(), QStringLiteral("10.99.0.1"));
        QCOMPARE(outcome.completions, 0);
        QCOMPARE(rig.connectionDidFail, 0);
        QCOMPARE(rig.didStartConnecting, 1);
        QCOMPARE(rig.account.closestCountry, QString());
    }
};

QTEST_GUILESS_MAIN(HMVPNConnectionSequenceTest)
#include "HMVPNConnectionSequenceTest.moc"
