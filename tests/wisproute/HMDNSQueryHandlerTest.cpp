// The proxy's decisions on real DNS packets (built and read with ldns): which resolvers a
// name goes to in each mode, which answers earn host routes and for how long, AAAA records
// kept out of tunnelled answers, and hostile queries answered with a DNS error.
#include "HMDNSQueryHandler.h"
#include "HMHostRoutes.h"
#include "HMManualClock.h"
#include "HMProxyOptions.h"

#include <QtTest>

#include <arpa/inet.h>
#include <ldns/ldns.h>
#include <map>

using Mode = HMDNSQueryHandler::Mode;
using Path = HMDNSQueryHandler::Path;
using Via = HMRouteTable::Via;
using Bytes = std::vector<uint8_t>;
Q_DECLARE_METATYPE(Mode)
Q_DECLARE_METATYPE(Path)
Q_DECLARE_METATYPE(Bytes)

namespace {

class ProxyClock : public HMProxyClock
{
public:
    HMManualClock manual;
    int64_t nowMs() const override { return manual.monotonicMs(); }
};

class RecordingTable : public HMRouteTable
{
public:
    std::map<uint32_t, Via> routes;
    int adds = 0;
    bool refuse = false;
    bool addHostRoute(uint32_t address, Via via, std::string *error) override
    {
        if (refuse) {
            *error = "refused";
            return false;
        }
        ++adds;
        routes[address] = via;
        return true;
    }
    bool removeHostRoute(uint32_t address, std::string *) override
    {
        return routes.erase(address) == 1;
    }
};

uint32_t ip(const char *text)
{
    return inet_addr(text);
}

Bytes toWire(ldns_pkt *packet)
{
    uint8_t *data = nullptr;
    size_t size = 0;
    ldns_pkt2wire(&data, packet, &size);
    Bytes bytes(data, data + size);
    free(data);
    ldns_pkt_free(packet);
    return bytes;
}

ldns_pkt *queryPacket(const char *name, ldns_rr_type type)
{
    ldns_pkt *query =
        ldns_pkt_query_new(ldns_dname_new_frm_str(name), type, LDNS_RR_CLASS_IN, LDNS_RD);
    ldns_pkt_set_id(query, 0x1234);
    return query;
}

Bytes query(const char *name, ldns_rr_type type = LDNS_RR_TYPE_A)
{
    return toWire(queryPacket(name, type));
}

// As stub resolvers send them: with an EDNS record in the additional section.
Bytes ednsQuery(const char *name)
{
    ldns_pkt *packet = queryPacket(name, LDNS_RR_TYPE_A);
    ldns_pkt_set_edns_udp_size(packet, 1232);
    return toWire(packet);
}

// An answer to (name, type) holding the given records in presentation form.
Bytes answer(const char *name, ldns_rr_type type, const QStringList &records)
{
    ldns_pkt *packet = queryPacket(name, type);
    ldns_pkt_set_qr(packet, true);
    for (const QString &record : records) {
        ldns_rr *rr = nullptr;
        if (ldns_rr_new_frm_str(&rr, record.toLatin1().constData(), 0, nullptr, nullptr) !=
            LDNS_STATUS_OK) {
            qFatal("bad test record %s", qPrintable(record));
        }
        ldns_pkt_push_rr(packet, LDNS_SECTION_ANSWER, rr);
    }
    return toWire(packet);
}

QStringList recordTypes(const Bytes &wire)
{
    ldns_pkt *packet = nullptr;
    if (ldns_wire2pkt(&packet, wire.data(), wire.size()) != LDNS_STATUS_OK) {
        return {"unreadable"};
    }
    QStringList types;
    const ldns_rr_list *records = ldns_pkt_answer(packet);
    for (size_t i = 0; i < ldns_rr_list_rr_count(records); ++i) {
        char *type = ldns_rr_type2str(ldns_rr_get_type(ldns_rr_list_rr(records, i)));
        types << QString::fromLatin1(type);
        free(type);
    }
    ldns_pkt_free(packet);
    return types;
}

int rcodeOf(const Bytes &wire)
{
    ldns_pkt *packet = nullptr;
    if (ldns_wire2pkt(&packet, wire.data(), wire.size()) != LDNS_STATUS_OK) {
        return -1;
    }
    const int rcode = ldns_pkt_get_rcode(packet);
    const bool sameId = ldns_pkt_id(packet) == 0x1234 && ldns_pkt_qr(packet);
    ldns_pkt_free(packet);
    return sameId ? rcode : -2;
}

HMDomainMatcher listOf(const std::string &text)
{
    return HMDomainMatcher::fromText(text);
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
        QTest::newRow("off: listed names too")
            << Mode::Off << "example.com" << false << Path::Tunnel;
        QTest::newRow("inclusion: entry")
            << Mode::Inclusion << "example.com" << true << Path::Tunnel;
        QTest::newRow("inclusion: subdomain, any case")
            << Mode::Inclusion << "WWW.Example.COM." << true << Path::Tunnel;
        QTest::newRow("inclusion: same ending, other name")
            << Mode::Inclusion << "badexample.com" << false << Path::Original;
        QTest::newRow("inclusion: one label holding a dot")
            << Mode::Inclusion << "www.example\\.com" << false << Path::Original;
        QTest::newRow("inclusion: parent of an entry")
            << Mode::Inclusion << "com" << false << Path::Original;
        QTest::newRow("exclusion: entry")
            << Mode::Exclusion << "a.b.example.com" << true << Path::Original;
        QTest::newRow("exclusion: other")
            << Mode::Exclusion << "example.org" << false << Path::Tunnel;
    }

    void namesTakeTheirModesPath()
    {
        QFETCH(Mode, mode);
        QFETCH(QString, name);
        QFETCH(bool, listed);
        QFETCH(Path, path);
        HMDNSQueryHandler handler(mode, listOf("example.com\n\nnet.\n"), nullptr);
        for (const Bytes &wire :
             {query(name.toLatin1().constData()), ednsQuery(name.toLatin1().constData())}) {
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

        const Bytes good = query("example.com");
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
        ldns_pkt *two = queryPacket("example.com", LDNS_RR_TYPE_A);
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
        HMDNSQueryHandler handler(Mode::Inclusion, listOf("example.com"), nullptr);
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

        QTest::newRow("inclusion, listed: route into the tunnel, no AAAA")
            << Mode::Inclusion << "www.example.com" << QStringList{"CNAME", "A"}
            << int(Via::Tunnel);
        QTest::newRow("inclusion, other: untouched")
            << Mode::Inclusion << "www.other.org" << QStringList{"CNAME", "A", "AAAA"} << -1;
        QTest::newRow("exclusion, listed: route around the tunnel, AAAA kept")
            << Mode::Exclusion << "www.example.com" << QStringList{"CNAME", "A", "AAAA"}
            << int(Via::Original);
        QTest::newRow("exclusion, other: no AAAA")
            << Mode::Exclusion << "www.other.org" << QStringList{"CNAME", "A"} << -1;
        QTest::newRow("off: no AAAA")
            << Mode::Off << "www.example.com" << QStringList{"CNAME", "A"} << -1;
    }

    void answersEarnRoutesAndLoseAAAA()
    {
        QFETCH(Mode, mode);
        QFETCH(QString, name);
        QFETCH(QStringList, kept);
        QFETCH(int, via);
        ProxyClock clock;
        RecordingTable table;
        HMHostRoutes routes(table, clock);
        HMDNSQueryHandler handler(mode, listOf("example.com"), &routes);
        const QByteArray owner = name.toLatin1();
        const Bytes asked = query(owner.constData(), LDNS_RR_TYPE_A);
        const auto question = handler.inspect(asked.data(), asked.size()).question;
        QVERIFY(question);
        const Bytes reply = answer(owner.constData(), LDNS_RR_TYPE_A,
                                   {name + ". 30 IN CNAME edge.cdn.test.",
                                    QStringLiteral("edge.cdn.test. 30 IN A 203.0.113.9"),
                                    QStringLiteral("edge.cdn.test. 30 IN AAAA 2001:db8::9")});
        const auto done = handler.complete(*question, reply.data(), reply.size());
        QCOMPARE(recordTypes(done.reply), kept);
        // An answer with nothing to take out goes on byte for byte.
        const Bytes plain = answer(owner.constData(), LDNS_RR_TYPE_A,
                                   {name + QStringLiteral(". 30 IN A 203.0.113.9")});
        QCOMPARE(handler.complete(*question, plain.data(), plain.size()).reply, plain);
        if (via < 0) {
            QVERIFY(table.routes.empty());
        } else {
            QCOMPARE(table.routes.size(), size_t(1));
            QCOMPARE(int(table.routes.at(ip("203.0.113.9"))), via);
        }
    }

    void answersToOtherQuestionsAreIgnored()
    {
        RecordingTable table;
        ProxyClock clock;
        HMHostRoutes routes(table, clock);
        HMDNSQueryHandler handler(Mode::Inclusion, listOf("example.com"), &routes);
        const Bytes asked = query("example.com");
        const auto question = handler.inspect(asked.data(), asked.size()).question;
        for (const Bytes &reply :
             {answer("evil.test", LDNS_RR_TYPE_A, {"evil.test. 30 IN A 198.51.100.1"}),
              answer("example.com", LDNS_RR_TYPE_MX, {}), query("example.com"), Bytes{1, 2, 3}}) {
            const auto done = handler.complete(*question, reply.data(), reply.size());
            QVERIFY(done.reply.empty());
            QVERIFY(!done.problem.empty());
        }
        QVERIFY(table.routes.empty());
    }

    void hostRoutesLiveAtLeastAMinuteAndAreRefreshed()
    {
        ProxyClock clock;
        RecordingTable table;
        HMHostRoutes routes(table, clock);
        std::string error;
        QVERIFY(routes.ensure(ip("10.0.0.1"), 5, Via::Tunnel, &error));   // 60 s
        QVERIFY(routes.ensure(ip("10.0.0.2"), 300, Via::Tunnel, &error)); // 300 s
        clock.manual.advance(50 * 1000);
        QVERIFY(routes.ensure(ip("10.0.0.1"), 30, Via::Tunnel, &error)); // to 110 s
        QCOMPARE(table.adds, 2); // a refresh costs the kernel nothing
        clock.manual.advance(59 * 1000);
        QCOMPARE(routes.expire(), size_t(0));
        clock.manual.advance(1000);
        QCOMPARE(routes.expire(), size_t(1));
        QVERIFY(!routes.contains(ip("10.0.0.1")) && table.routes.count(ip("10.0.0.1")) == 0);
        clock.manual.advance(190 * 1000);
        QCOMPARE(routes.expire(), size_t(1));
        QVERIFY(table.routes.empty());

        // The same address wanted the other way is re-routed, not merely extended.
        QVERIFY(routes.ensure(ip("10.0.0.3"), 60, Via::Tunnel, &error));
        QVERIFY(routes.ensure(ip("10.0.0.3"), 60, Via::Original, &error));
        QCOMPARE(int(table.routes.at(ip("10.0.0.3"))), int(Via::Original));
        table.refuse = true;
        QVERIFY(!routes.ensure(ip("10.0.0.4"), 60, Via::Tunnel, &error));
        QVERIFY(!routes.contains(ip("10.0.0.4")));
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
