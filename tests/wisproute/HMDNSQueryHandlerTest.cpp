// The proxy's decisions on real DNS packets (built and read with ldns): which resolvers a
// name goes to in each mode, which answers earn host routes and for how long, AAAA records
// kept out of tunnelled answers, and hostile queries answered with a DNS error.
#include "HMDNSQueryHandler.h"
#include "HMDNSTestPackets.h"
#include "HMHostRoutes.h"
#include "HMProxyOptions.h"

#include <QtTest>

#include <arpa/inet.h>

using Mode = HMDNSQueryHandler::Mode;
using Path = HMDNSQueryHandler::Path;
Q_DECLARE_METATYPE(Mode)
Q_DECLARE_METATYPE(Path)
Q_DECLARE_METATYPE(Bytes)

namespace {

constexpr uint16_t kId = 0x1234;

// As stub resolvers send them: with an EDNS record in the additional section.
Bytes ednsQuery(const QString &name)
{
    ldns_pkt *packet = queryPacket(name, kId, LDNS_RR_TYPE_A);
    ldns_pkt_set_edns_udp_size(packet, 1232);
    return toWire(packet);
}

// The reply's rcode; -2 when it does not answer the query with its id.
int rcodeOf(const Bytes &wire)
{
    const Packet packet = parsed(wire);
    if (!packet) {
        return -1;
    }
    const bool sameId = ldns_pkt_id(packet.get()) == kId && ldns_pkt_qr(packet.get());
    return sameId ? ldns_pkt_get_rcode(packet.get()) : -2;
}

} // namespace

class HMDNSQueryHandlerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void namesTakeTheirModesPath_data()
    {
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("listed");
        QTest::addColumn<Path>("path");
        const auto row = [](const char *name, Mode mode, const char *domain, bool listed,
                            Path path) { QTest::newRow(name) << mode << domain << listed << path; };
        row("off: listed names too", Mode::Off, "example.com", false, Path::Tunnel);
        row("inclusion: entry", Mode::Inclusion, "example.com", true, Path::Tunnel);
        row("inclusion: subdomain, any case", Mode::Inclusion, "WWW.Example.COM.", true,
            Path::Tunnel);
        row("inclusion: same ending, other name", Mode::Inclusion, "badexample.com", false,
            Path::Original);
        row("inclusion: one label holding a dot", Mode::Inclusion, "www.example\\.com", false,
            Path::Original);
        row("inclusion: parent of an entry", Mode::Inclusion, "com", false, Path::Original);
        row("exclusion: entry", Mode::Exclusion, "a.b.example.com", true, Path::Original);
        row("exclusion: other", Mode::Exclusion, "example.org", false, Path::Tunnel);
    }

    void namesTakeTheirModesPath()
    {
        QFETCH(Mode, mode);
        QFETCH(QString, name);
        QFETCH(bool, listed);
        QFETCH(Path, path);
        HMDNSQueryHandler handler(mode, HMDomainMatcher::fromText("example.com\n\nnet.\n"),
                                  nullptr);
        for (const Bytes &wire : {queryFor(name, kId), ednsQuery(name)}) {
            const auto inspection = handler.inspect(wire.data(), wire.size());
            QVERIFY(inspection.question);
            QVERIFY(inspection.reply.empty());
            QCOMPARE(inspection.question->listed, listed);
            QCOMPARE(inspection.question->path, path);
        }
    }

    void hostileQueriesGetAnErrorOrNothing_data()
    {
        QTest::addColumn<Bytes>("wire");
        QTest::addColumn<int>("rcode"); // -1: no reply at all

        const Bytes good = queryFor("example.com", kId);
        QTest::newRow("shorter than a header") << Bytes(good.begin(), good.begin() + 11) << -1;
        QTest::newRow("cut inside the question")
            << Bytes(good.begin(), good.end() - 3) << int(LDNS_RCODE_FORMERR);
        const Bytes edns = ednsQuery("example.com");
        QTest::newRow("cut inside its EDNS record")
            << Bytes(edns.begin(), edns.end() - 2) << int(LDNS_RCODE_FORMERR);
        Bytes loop = {
            0x12, 0x34, 0x01, 0x00, 0x00, 0x01, 0,    0,    0,
            0,    0,    0,    0xc0, 0x0c, 0x00, 0x01, 0x00, 0x01}; // a name that points at itself
        QTest::newRow("compression loop") << loop << int(LDNS_RCODE_FORMERR);
        Bytes forward = loop;
        forward[13] = 0x40; // a pointer past the end
        QTest::newRow("pointer out of the message") << forward << int(LDNS_RCODE_FORMERR);
        Bytes oversized = good;
        oversized.resize(HMDNSQueryHandler::kMaxQuerySize + 1);
        QTest::newRow("oversized") << oversized << int(LDNS_RCODE_FORMERR);
        Bytes truncated = good;
        truncated[2] |= 0x02;
        QTest::newRow("truncated flag") << truncated << int(LDNS_RCODE_FORMERR);
        ldns_pkt *two = queryPacket("example.com", kId, LDNS_RR_TYPE_A);
        ldns_pkt_push_rr(two, LDNS_SECTION_QUESTION,
                         ldns_rr_clone(ldns_rr_list_rr(ldns_pkt_question(two), 0)));
        QTest::newRow("two questions") << toWire(two) << int(LDNS_RCODE_FORMERR);
        Bytes notify = good;
        notify[2] = static_cast<uint8_t>((notify[2] & 0x87) | (LDNS_PACKET_NOTIFY << 3));
        QTest::newRow("not a query") << notify << int(LDNS_RCODE_NOTIMPL);
        Bytes reply = good;
        reply[2] |= 0x80;
        QTest::newRow("a reply") << reply << -1;
    }

    void hostileQueriesGetAnErrorOrNothing()
    {
        QFETCH(Bytes, wire);
        QFETCH(int, rcode);
        HMDNSQueryHandler handler(Mode::Inclusion, HMDomainMatcher::fromText("example.com"),
                                  nullptr);
        const auto inspection = handler.inspect(wire.data(), wire.size());
        QVERIFY(!inspection.question);
        QVERIFY(!inspection.problem.empty());
        QCOMPARE(inspection.reply.empty() ? -1 : rcodeOf(inspection.reply), rcode);
    }

    void answersEarnRoutesAndLoseAAAA_data()
    {
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QStringList>("kept");
        QTest::addColumn<int>("via"); // -1: no route

        const auto row = [](const char *name, Mode mode, const char *domain,
                            const QStringList &kept,
                            int via) { QTest::newRow(name) << mode << domain << kept << via; };
        const QStringList all{"CNAME", "A", "AAAA"};
        const QStringList noAAAA{"CNAME", "A"};
        row("inclusion, listed: route into the tunnel, no AAAA", Mode::Inclusion, "www.example.com",
            noAAAA, int(Via::Tunnel));
        row("inclusion, other: untouched", Mode::Inclusion, "www.other.org", all, -1);
        row("exclusion, listed: route around the tunnel, AAAA kept", Mode::Exclusion,
            "www.example.com", all, int(Via::Original));
        row("exclusion, other: no AAAA", Mode::Exclusion, "www.other.org", noAAAA, -1);
        row("off: no AAAA", Mode::Off, "www.example.com", noAAAA, -1);
    }

    void answersEarnRoutesAndLoseAAAA()
    {
        QFETCH(Mode, mode);
        QFETCH(QString, name);
        QFETCH(QStringList, kept);
        QFETCH(int, via);
        SteppedClock clock;
        RecordingTable table;
        HMHostRoutes routes(table, clock);
        HMDNSQueryHandler handler(mode, HMDomainMatcher::fromText("example.com"), &routes);
        const Bytes asked = queryFor(name, kId);
        const auto question = handler.inspect(asked.data(), asked.size()).question;
        QVERIFY(question);
        const Bytes reply =
            replyTo(asked, false,
                    {"@ 30 IN CNAME edge.cdn.test.", "edge.cdn.test. 30 IN A 203.0.113.9",
                     "edge.cdn.test. 30 IN AAAA 2001:db8::9"});
        QStringList types;
        for (const QString &record :
             answerRecords(handler.complete(*question, reply.data(), reply.size()).reply)) {
            types << record.section(' ', 3, 3);
        }
        QCOMPARE(types, kept);
        // An answer with nothing to take out goes on byte for byte.
        const Bytes plain = replyTo(asked, false, {"@ 30 IN A 203.0.113.9"});
        QCOMPARE(handler.complete(*question, plain.data(), plain.size()).reply, plain);
        if (via < 0) {
            QVERIFY(table.routes.empty());
        } else {
            QCOMPARE(table.routes.size(), size_t(1));
            QCOMPARE(int(table.routes.at(inet_addr("203.0.113.9"))), via);
        }
    }

    void answersToOtherQuestionsAreIgnored()
    {
        RecordingTable table;
        SteppedClock clock;
        HMHostRoutes routes(table, clock);
        HMDNSQueryHandler handler(Mode::Inclusion, HMDomainMatcher::fromText("example.com"),
                                  &routes);
        const Bytes asked = queryFor("example.com", kId);
        const auto question = handler.inspect(asked.data(), asked.size()).question;
        for (const Bytes &reply :
             {replyTo(queryFor("evil.test", kId), false, {"@ 30 IN A 198.51.100.1"}),
              replyTo(queryFor("example.com", kId, LDNS_RR_TYPE_MX), false, {}), asked,
              Bytes{1, 2, 3}}) {
            const auto done = handler.complete(*question, reply.data(), reply.size());
            QVERIFY(done.reply.empty());
            QVERIFY(!done.problem.empty());
        }
        QVERIFY(table.routes.empty());
    }

    void hostRoutesLiveAtLeastAMinuteAndAreRefreshed()
    {
        SteppedClock clock;
        RecordingTable table;
        HMHostRoutes routes(table, clock);
        std::string error;
        QVERIFY(routes.ensure(inet_addr("10.0.0.1"), 5, Via::Tunnel, &error));   // 60 s
        QVERIFY(routes.ensure(inet_addr("10.0.0.2"), 300, Via::Tunnel, &error)); // 300 s
        clock.now += 50 * 1000;
        QVERIFY(routes.ensure(inet_addr("10.0.0.1"), 30, Via::Tunnel, &error)); // to 110 s
        QCOMPARE(table.adds, 2); // a refresh costs the kernel nothing
        clock.now += 59 * 1000;
        QCOMPARE(routes.expire(), size_t(0));
        clock.now += 1000;
        QCOMPARE(routes.expire(), size_t(1));
        QVERIFY(!routes.contains(inet_addr("10.0.0.1")) &&
                table.routes.count(inet_addr("10.0.0.1")) == 0);
        clock.now += 190 * 1000;
        QCOMPARE(routes.expire(), size_t(1));
        QVERIFY(table.routes.empty());

        // The same address wanted the other way is re-routed, not merely extended.
        QVERIFY(routes.ensure(inet_addr("10.0.0.3"), 60, Via::Tunnel, &error));
        QVERIFY(routes.ensure(inet_addr("10.0.0.3"), 60, Via::Original, &error));
        QCOMPARE(int(table.routes.at(inet_addr("10.0.0.3"))), int(Via::Original));
        table.refuse = true;
        QVERIFY(!routes.ensure(inet_addr("10.0.0.4"), 60, Via::Tunnel, &error));
        QVERIFY(!routes.contains(inet_addr("10.0.0.4")));
        routes.removeAll();
        QVERIFY(table.routes.empty());
    }

    void commandLineRefusesWhatItCannotFollow_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("accepted");
        const QStringList base = {"-f",   "/run/d", "-s",         "/r",
                                  "-log", "/l",     "-server",    "198.51.100.7",
                                  "-tap", "tun0",   "-wisproute", "wisproute"};
        QTest::newRow("as the application builds it") << base + QStringList{"-debug", "1"} << true;
        QTest::newRow("off") << QStringList{"-f", "nothing", "-s",           "/r",   "-log",
                                            "/l", "-server", "198.51.100.7", "-tap", "tun0"}
                             << true;
        QTest::newRow("off with a mode") << QStringList{"-f", "nothing"} + base.mid(2) << false;
        QTest::newRow("file without a mode") << base.mid(0, 10) << false;
        QTest::newRow("unknown mode") << base.mid(0, 11) + QStringList{"both"} << false;
        QTest::newRow("server by name")
            << QStringList(base).replaceInStrings("198.51.100.7", "vpn.example") << false;
        QTest::newRow("unknown option") << base + QStringList{"-exec", "/bin/sh"} << false;
        QTest::newRow("missing value") << base + QStringList{"-debug"} << false;
        QTest::newRow("twice") << base + QStringList{"-tap", "eth0"} << false;
        QTest::newRow("bad tunnel resolver")
            << base + QStringList{"-tunnel-dns", "8.8.8.8,x"} << false;
    }

    void commandLineRefusesWhatItCannotFollow()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, accepted);
        std::vector<std::string> list;
        for (const QString &argument : arguments) {
            list.push_back(argument.toStdString());
        }
        std::string error;
        const auto options = HMProxyOptions::parse(list, &error);
        QCOMPARE(options.has_value(), accepted);
        QCOMPARE(error.empty(), accepted);
    }
};

QTEST_GUILESS_MAIN(HMDNSQueryHandlerTest)
#include "HMDNSQueryHandlerTest.moc"
