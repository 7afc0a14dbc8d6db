// The argument lists the helper lets through to a root OpenVPN, and what it makes of them.
#include "HMOpenVPNArguments.h"

#include "HMExpectedArguments.h"

#include <QTemporaryDir>
#include <QtTest>
#include <functional>

using Mutation = std::function<void(QStringList &)>;
Q_DECLARE_METATYPE(Mutation)

namespace {

const QString kUp = HMExpectedArguments::upScript();
const HMOpenVPNArguments::Management kManagement{"/srv/m/1000/management", "alice"};

QStringList applicationList(const QString &cd, bool selectiveRouting)
{
    return HMExpectedArguments::vpnConfig(cd, selectiveRouting) +
           QStringList{"--remote", "nl1.vpn.example", "1194", "udp",
                       "--remote", "10.0.0.7",        "443",  "tcp"};
}

int indexOf(const QStringList &list, const QString &word)
{
    return static_cast<int>(list.indexOf(word));
}

// The word at index (counted from the end when negative) replaced by value.
Mutation setAt(int index, const QString &value)
{
    return [index, value](QStringList &l) { l[index < 0 ? l.size() + index : index] = value; };
}

Mutation setAfter(const QString &option, const QString &value)
{
    return [option, value](QStringList &l) { l[indexOf(l, option) + 1] = value; };
}

// The application's list with its body replaced by `body` (a configuration file, say) and,
// unless dropped, its last server kept.
Mutation withBody(const QStringList &body, bool keepServer = true)
{
    return [body, keepServer](QStringList &l) {
        l = l.mid(0, 7) + body + (keepServer ? l.mid(l.size() - 4) : QStringList());
    };
}

} // namespace

class HMOpenVPNArgumentsTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_resources;
    HMHelperConfig m_config;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_resources.isValid());
        m_config = HMHelperConfig::defaults();
        m_config.resourceDir = m_resources.path();
        m_config.logDir = QStringLiteral("/srv/logs");
        m_config.runDir = QStringLiteral("/srv/run");
    }

    void acceptedShapes_data()
    {
        QTest::addColumn<bool>("selectiveRouting");
        QTest::addColumn<Mutation>("mutate");
        QTest::addColumn<int>("body");
        QTest::addColumn<int>("remotes");

        const int selective = static_cast<int>(HMOpenVPNArguments::Body::SelectiveRouting);
        const int full = static_cast<int>(HMOpenVPNArguments::Body::FullTunnel);
        const int config = static_cast<int>(HMOpenVPNArguments::Body::ConfigFile);
        const Mutation none = [](QStringList &) {};
        QTest::newRow("full tunnel, two servers") << false << none << full << 2;
        QTest::newRow("selective routing") << true << none << selective << 2;
        QTest::newRow("no servers")
            << false << Mutation([](QStringList &l) { l = l.mid(0, l.size() - 8); }) << full << 0;
        QTest::newRow("--cd through a trailing slash")
            << false << Mutation([](QStringList &l) { l[1] += QLatin1Char('/'); }) << full << 2;
        QTest::newRow("configuration file")
            << false << withBody({"--config", "/home/u/my.ovpn"}) << config << 1;
        QTest::newRow("IPv6 server") << false << setAt(-3, "2001:db8::1") << full << 2;
    }

    void acceptedShapes()
    {
        QFETCH(bool, selectiveRouting);
        QFETCH(Mutation, mutate);
        QFETCH(int, body);
        QFETCH(int, remotes);
        QStringList list = applicationList(m_resources.path(), selectiveRouting);
        mutate(list);
        QString error;
        const auto launch = HMOpenVPNArguments::parse(list, m_resources.path(), &error);
        QVERIFY2(launch, qPrintable(error));
        QCOMPARE(static_cast<int>(launch->body), body);
        QCOMPARE(launch->remotes.size(), remotes);
    }

    void refusedLists_data()
    {
        QTest::addColumn<Mutation>("mutate");
        QTest::addColumn<QString>("reason");

        QTest::newRow("--cd elsewhere")
            << setAt(1, "/tmp") << "--cd must name the helper's resource directory";
        QTest::newRow("--cd relative") << setAt(1, ".") << "--cd must name";
        QTest::newRow("management on another port") << setAt(4, "5679") << "'5679'";
        QTest::newRow("management hold missing")
            << Mutation([](QStringList &l) { l.removeAt(5); })
            << "'--management-query-passwords' is out of place";
        QTest::newRow("--plugin in the body") << Mutation([](QStringList &l) {
            l.insert(indexOf(l, "--verb"), "--plugin");
            l.insert(indexOf(l, "--verb"), "/tmp/evil.so");
        }) << "option '--plugin' is not allowed";
        QTest::newRow("--plugin after the servers") << Mutation([](QStringList &l) {
            l += {"--plugin", "/tmp/evil.so", "x", "y"};
        }) << "option '--plugin' is not allowed";
        QTest::newRow("unknown option")
            << Mutation([](QStringList &l) { l.insert(9, "--frobnicate"); })
            << "option '--frobnicate' is not allowed";
        QTest::newRow("foreign up script")
            << setAfter("--up", "/tmp/evil.sh")
            << "only the shipped up/down scripts may run; refused --up '/tmp/evil.sh'";
        QTest::newRow("shipped up script with a command appended")
            << setAfter("--up", kUp + "; id") << "only the shipped up/down scripts";
        QTest::newRow("foreign down script")
            << setAfter("--down", "evil.sh") << "refused --down 'evil.sh'";
        QTest::newRow("log elsewhere") << setAfter("--log", "/etc/cron.d/x")
                                       << "OpenVPN's log must be /var/log/hmwispd/vpn.log";
        QTest::newRow("script security raised") << setAfter("--script-security", "4") << "'4'";
        QTest::newRow("body cut short")
            << Mutation([](QStringList &l) { l = l.mid(0, indexOf(l, "--verb")); })
            << "argument list ends";
        QTest::newRow("server port 0") << setAt(-2, "0") << "port '0' is not a port";
        QTest::newRow("server port 65536") << setAt(-2, "65536") << "port '65536'";
        QTest::newRow("server port with letters") << setAt(-2, "443x") << "port '443x'";
        QTest::newRow("option-looking host") << setAt(-3, "--up") << "host '--up' is not a host";
        QTest::newRow("host with a dash first") << setAt(-3, "-x.example") << "host '-x.example'";
        QTest::newRow("host with a path") << setAt(-3, "a/b") << "host 'a/b'";
        QTest::newRow("host with a blank") << setAt(-3, "a b") << "host 'a b'";
        QTest::newRow("other protocol") << setAt(-1, "udp6") << "protocol 'udp6'";
        QTest::newRow("too many servers") << Mutation([](QStringList &l) {
            for (int i = 0; i < HMOpenVPNArguments::kMaxRemotes; ++i) {
                l += QStringList{"--remote", "h.example", "1194", "udp"};
            }
        }) << "more than 64";
        QTest::newRow("incomplete server") << Mutation([](QStringList &l) { l.removeLast(); })
                                           << "--remote needs a host, a port and a protocol";
        QTest::newRow("relative configuration file")
            << withBody({"--config", "my.ovpn"}, false)
            << "--config must be followed by an absolute file path";
        QTest::newRow("configuration file plus options")
            << withBody({"--config", "/home/u/my.ovpn", "--up", "x"}, false)
            << "option '--up' is not allowed";
    }

    void refusedLists()
    {
        QFETCH(Mutation, mutate);
        QFETCH(QString, reason);
        QStringList list = applicationList(m_resources.path(), false);
        mutate(list);
        QString error;
        QVERIFY(!HMOpenVPNArguments::parse(list, m_resources.path(), &error));
        QVERIFY2(error.contains(reason), qPrintable(error));
    }

    void builtListForcesTheHelpersOwnSettings_data()
    {
        QTest::addColumn<bool>("selectiveRouting");
        QTest::newRow("full tunnel") << false;
        QTest::newRow("selective routing") << true;
    }

    void builtListForcesTheHelpersOwnSettings()
    {
        QFETCH(bool, selectiveRouting);
        const QStringList requested = applicationList(m_resources.path() + "/", selectiveRouting);
        QString error;
        const auto launch = HMOpenVPNArguments::parse(requested, m_resources.path(), &error);
        QVERIFY2(launch, qPrintable(error));
        const QStringList built = HMOpenVPNArguments::build(*launch, m_config, kManagement);

        // OpenVPN 2.6 refuses the old method word; the helper detaches OpenVPN itself.
        QVERIFY(!built.contains("system"));
        QVERIFY(!built.contains("--daemon"));
        QCOMPARE(built.at(indexOf(built, "--script-security") + 1), QString("3"));
        QCOMPARE(built.at(indexOf(built, "--script-security") + 2), QString("--verb"));
        QCOMPARE(built.mid(0, 7),
                 QStringList({"--cd", m_resources.path(), "--management", "/srv/m/1000/management",
                              "unix", "--management-hold", "--management-query-passwords"}));
        QCOMPARE(built.at(indexOf(built, "--log") + 1), QString("/srv/logs/vpn.log"));
        QCOMPARE(built.at(indexOf(built, "--up") + 1), kUp);
        QCOMPARE(built.count("--dhcp-option"), selectiveRouting ? 1 : 2);

        const QStringList ownOptions = {
            "--cd",     m_resources.path(), "--log",    "/srv/logs/vpn.log",
            "--setenv", "HM_STATE_DIR",     "/srv/run", "--management-client-user",
            "alice"};
        QCOMPARE(built.mid(built.size() - ownOptions.size()), ownOptions);
        const QStringList servers = built.mid(built.size() - ownOptions.size() - 8, 8);
        QCOMPARE(servers, requested.mid(requested.size() - 8));
        // Nothing else is lost or added: the request minus the three dropped words, plus own.
        QCOMPARE(built.size(), requested.size() - 2 + ownOptions.size());
    }

    void builtListUsesTheSanitisedCopy()
    {
        QStringList requested = applicationList(m_resources.path(), false);
        withBody({"--config", "/home/u/my.ovpn"})(requested);
        QString error;
        const auto launch = HMOpenVPNArguments::parse(requested, m_resources.path(), &error);
        QVERIFY2(launch, qPrintable(error));
        QCOMPARE(launch->configFile, QString("/home/u/my.ovpn"));
        const QStringList built =
            HMOpenVPNArguments::build(*launch, m_config, kManagement, "/srv/run/copy.conf");
        QVERIFY(!built.contains("/home/u/my.ovpn"));
        QCOMPARE(built.mid(7, 6), QStringList({"--config", "/srv/run/copy.conf", "--remote",
                                               "10.0.0.7", "443", "tcp"}));
    }
};

QTEST_GUILESS_MAIN(HMOpenVPNArgumentsTest)
#include "HMOpenVPNArgumentsTest.moc"
