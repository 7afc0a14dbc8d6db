// The proxy's sockets on real packets, in a network namespace of the test's own (so port 53
// is free): resolvers that answer over UDP with the truncation flag, as any resolver does
// when the answer is too big, and over TCP with the whole answer. A client that then asks
// over TCP must get that whole answer, with the routes and the AAAA stripping its mode
// calls for. A resolver the test plays itself sees which ports the queries leave from, and
// forges answers.
#include "HMDNSProxy.h"
#include "HMHostRoutes.h"
#include "HMProxyLog.h"

#include <QTemporaryDir>
#include <QtTest>

#include <arpa/inet.h>
#include <atomic>
#include <dirent.h>
#include <ldns/ldns.h>
#include <map>
#include <mutex>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <set>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

using Mode = HMDNSQueryHandler::Mode;
using Path = HMDNSQueryHandler::Path;
using Via = HMRouteTable::Via;
using Bytes = std::vector<uint8_t>;
Q_DECLARE_METATYPE(Mode)

namespace {

constexpr int kAddresses = 80; // A and AAAA each: about 3 kB, well past 512 and 1232
const char *const kTunnelResolver = "127.0.0.53";
const char *const kOriginalResolver = "127.0.0.54";
const char *const kRefusingResolver = "127.0.0.55"; // nothing listens there
const char *const kPlayedResolver = "127.0.0.56";   // the test answers for it

class SteppedClock : public HMProxyClock
{
public:
    std::atomic<int64_t> now{1000000};
    int64_t nowMs() const override { return now; }
};

class RecordingTable : public HMRouteTable
{
public:
    std::mutex lock;
    std::map<uint32_t, Via> routes;
    bool addHostRoute(uint32_t address, Via via, std::string *) override
    {
        std::lock_guard<std::mutex> hold(lock);
        routes[address] = via;
        return true;
    }
    bool removeHostRoute(uint32_t address, std::string *) override
    {
        std::lock_guard<std::mutex> hold(lock);
        return routes.erase(address) == 1;
    }
};

Bytes toWire(const ldns_pkt *packet)
{
    uint8_t *data = nullptr;
    size_t size = 0;
    ldns_pkt2wire(&data, packet, &size);
    Bytes bytes(data, data + size);
    free(data);
    return bytes;
}

// A resolver's reply: the question asked, the truncation flag as given, and the records
// ("@" for the name asked).
Bytes replyTo(const uint8_t *query, size_t size, bool truncated, const QStringList &records)
{
    ldns_pkt *asked = nullptr;
    if (ldns_wire2pkt(&asked, query, size) != LDNS_STATUS_OK) {
        return {};
    }
    ldns_pkt *reply = ldns_pkt_new();
    ldns_pkt_set_id(reply, ldns_pkt_id(asked));
    ldns_pkt_set_qr(reply, true);
    ldns_pkt_set_rd(reply, true);
    ldns_pkt_set_ra(reply, true);
    ldns_pkt_set_tc(reply, truncated);
    const ldns_rr *question = ldns_rr_list_rr(ldns_pkt_question(asked), 0);
    ldns_pkt_push_rr(reply, LDNS_SECTION_QUESTION, ldns_rr_clone(question));
    char *owner = ldns_rdf2str(ldns_rr_owner(question));
    for (QString record : records) {
        ldns_rr *rr = nullptr;
        ldns_rr_new_frm_str(&rr, record.replace("@", owner).toUtf8().constData(), 0, nullptr,
                            nullptr);
        ldns_pkt_push_rr(reply, LDNS_SECTION_ANSWER, rr);
    }
    free(owner);
    Bytes bytes = toWire(reply);
    ldns_pkt_free(reply);
    ldns_pkt_free(asked);
    return bytes;
}

// The answer a resolver gives: over UDP only the question with TC set, over TCP the whole
// set of addresses.
Bytes resolverAnswer(const uint8_t *query, size_t size, bool overTcp)
{
    QStringList records;
    for (int i = 0; overTcp && i < kAddresses; ++i) {
        records << QString("@ 300 IN A 10.9.%1.%2").arg(i / 200).arg(i % 200 + 1)
                << QString("@ 300 IN AAAA fd00::%1").arg(i + 1);
    }
    return replyTo(query, size, !overTcp, records);
}

int boundSocket(int type, const char *address)
{
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(53);
    local.sin_addr.s_addr = inet_addr(address);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof(local)) != 0 ||
        (type == SOCK_STREAM && ::listen(fd, 8) != 0)) {
        qFatal("cannot bind %s:53: %s", address, strerror(errno));
    }
    return fd;
}

bool readFully(int fd, uint8_t *into, size_t size)
{
    for (size_t got = 0; got < size;) {
        pollfd watch{fd, POLLIN, 0};
        const ssize_t n = ::poll(&watch, 1, 5000) == 1 ? ::recv(fd, into + got, size - got, 0) : -1;
        if (n <= 0) {
            return false;
        }
        got += size_t(n);
    }
    return true;
}

Bytes framedExchange(int fd, const Bytes &message)
{
    Bytes framed{uint8_t(message.size() >> 8), uint8_t(message.size() & 0xff)};
    framed.insert(framed.end(), message.begin(), message.end());
    uint8_t prefix[2];
    if (::send(fd, framed.data(), framed.size(), MSG_NOSIGNAL) != ssize_t(framed.size()) ||
        !readFully(fd, prefix, 2)) {
        return {};
    }
    Bytes answer((size_t(prefix[0]) << 8) | prefix[1]);
    return readFully(fd, answer.data(), answer.size()) ? answer : Bytes{};
}

Bytes queryFor(const char *name, uint16_t id)
{
    ldns_pkt *query =
        ldns_pkt_query_new(ldns_dname_new_frm_str(name), LDNS_RR_TYPE_A, LDNS_RR_CLASS_IN, LDNS_RD);
    ldns_pkt_set_id(query, id);
    const Bytes wire = toWire(query);
    ldns_pkt_free(query);
    return wire;
}

// One A record for the question asked.
Bytes answerFor(const Bytes &query, const char *address)
{
    return replyTo(query.data(), query.size(), false, {QString("@ 300 IN A ") + address});
}

struct Datagram
{
    Bytes bytes;
    sockaddr_in from{};
};

Datagram receiveFrom(int fd)
{
    Datagram datagram;
    datagram.bytes.resize(65535);
    socklen_t length = sizeof(datagram.from);
    pollfd watch{fd, POLLIN, 0};
    const ssize_t n = ::poll(&watch, 1, 5000) == 1
                          ? ::recvfrom(fd, datagram.bytes.data(), datagram.bytes.size(), 0,
                                       reinterpret_cast<sockaddr *>(&datagram.from), &length)
                          : -1;
    datagram.bytes.resize(size_t(std::max<ssize_t>(n, 0)));
    return datagram;
}

void sendTo(int fd, const Bytes &datagram, const sockaddr_in &to)
{
    ::sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to),
             sizeof(to));
}

sockaddr_in proxyAddress()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    return address;
}

int clientOfProxy(int type)
{
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in proxy = proxyAddress();
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&proxy), sizeof(proxy)) != 0) {
        qFatal("cannot reach the proxy: %s", strerror(errno));
    }
    return fd;
}

// The first A record's address, or an empty string.
QString firstAddress(const Bytes &answer)
{
    ldns_pkt *packet = nullptr;
    if (ldns_wire2pkt(&packet, answer.data(), answer.size()) != LDNS_STATUS_OK) {
        return QString();
    }
    QString address;
    const ldns_rr_list *records = ldns_pkt_answer(packet);
    if (ldns_rr_list_rr_count(records) > 0) {
        char *text = ldns_rdf2str(ldns_rr_rdf(ldns_rr_list_rr(records, 0), 0));
        address = QString::fromUtf8(text);
        free(text);
    }
    ldns_pkt_free(packet);
    return address;
}

int openDescriptors()
{
    int count = 0;
    DIR *dir = ::opendir("/proc/self/fd");
    while (::readdir(dir) != nullptr) {
        ++count;
    }
    ::closedir(dir);
    return count;
}

// The proxy serving on a thread of its own until the object ends.
class RunningProxy
{
public:
    RunningProxy(HMDNSQueryHandler &handler, const HMProxyClock &clock, HMHostRoutes *routes,
                 const std::vector<uint32_t> &tunnel, const std::vector<uint32_t> &original)
        : m_proxy(handler, m_log, clock, routes)
    {
        m_proxy.setResolvers(Path::Tunnel, tunnel);
        m_proxy.setResolvers(Path::Original, original);
        ready = m_log.open(m_dir.filePath("wisproute.log").toStdString(), 2, &error) &&
                m_proxy.listen(inet_addr("127.0.0.1"), 53, &error);
        if (ready) {
            m_thread = std::thread([this] { m_proxy.run(m_stop); });
        }
    }
    ~RunningProxy()
    {
        const uint64_t one = 1;
        (void)!::write(m_stop, &one, sizeof(one));
        if (m_thread.joinable()) {
            m_thread.join();
        }
        ::close(m_stop);
    }
    bool ready = false;
    std::string error;

private:
    QTemporaryDir m_dir;
    HMProxyLog m_log;
    HMDNSProxy m_proxy;
    int m_stop = ::eventfd(0, EFD_CLOEXEC);
    std::thread m_thread;
};

// A proxy in the plain mode whose only resolver is the one the test plays, on a clock the
// test steps.
struct PlayedSetUp
{
    SteppedClock clock;
    HMDNSQueryHandler handler{HMDNSQueryHandler::Mode::Off, HMDomainMatcher::fromText(""), nullptr};
    RunningProxy proxy{handler, clock, nullptr, {inet_addr(kPlayedResolver)}, {}};
};

// Two resolvers on their own addresses, each answering UDP and TCP, counting TCP queries.
class Resolvers
{
public:
    Resolvers()
    {
        for (const char *address : {kTunnelResolver, kOriginalResolver}) {
            m_udp.push_back(boundSocket(SOCK_DGRAM, address));
            m_tcp.push_back(boundSocket(SOCK_STREAM, address));
        }
        m_stop = ::eventfd(0, EFD_CLOEXEC);
        m_thread = std::thread([this] { serve(); });
    }
    ~Resolvers()
    {
        const uint64_t one = 1;
        (void)!::write(m_stop, &one, sizeof(one));
        m_thread.join();
        for (int fd : m_udp) {
            ::close(fd);
        }
        for (int fd : m_tcp) {
            ::close(fd);
        }
        ::close(m_stop);
    }
    std::atomic<int> tcpQueries[2]{};

private:
    void serve()
    {
        for (;;) {
            std::vector<pollfd> fds{{m_stop, POLLIN, 0}};
            for (size_t i = 0; i < 2; ++i) {
                fds.push_back({m_udp[i], POLLIN, 0});
                fds.push_back({m_tcp[i], POLLIN, 0});
            }
            ::poll(fds.data(), fds.size(), -1);
            if (fds[0].revents) {
                return;
            }
            for (size_t i = 0; i < 2; ++i) {
                if (fds[1 + 2 * i].revents) {
                    uint8_t query[512];
                    sockaddr_in from{};
                    socklen_t length = sizeof(from);
                    const ssize_t n = ::recvfrom(m_udp[i], query, sizeof(query), 0,
                                                 reinterpret_cast<sockaddr *>(&from), &length);
                    const Bytes reply =
                        resolverAnswer(query, size_t(std::max<ssize_t>(n, 0)), false);
                    ::sendto(m_udp[i], reply.data(), reply.size(), 0,
                             reinterpret_cast<sockaddr *>(&from), length);
                }
                if (fds[2 + 2 * i].revents) {
                    const int client = ::accept(m_tcp[i], nullptr, nullptr);
                    uint8_t prefix[2];
                    if (client >= 0 && readFully(client, prefix, 2)) {
                        Bytes query((size_t(prefix[0]) << 8) | prefix[1]);
                        if (readFully(client, query.data(), query.size())) {
                            ++tcpQueries[i];
                            const Bytes reply = resolverAnswer(query.data(), query.size(), true);
                            Bytes framed{uint8_t(reply.size() >> 8), uint8_t(reply.size() & 0xff)};
                            framed.insert(framed.end(), reply.begin(), reply.end());
                            ::send(client, framed.data(), framed.size(), MSG_NOSIGNAL);
                        }
                    }
                    ::close(client);
                }
            }
        }
    }

    std::vector<int> m_udp;
    std::vector<int> m_tcp;
    int m_stop = -1;
    std::thread m_thread;
};

size_t countOf(const ldns_pkt *packet, ldns_rr_type type)
{
    size_t count = 0;
    const ldns_rr_list *records = ldns_pkt_answer(packet);
    for (size_t i = 0; i < ldns_rr_list_rr_count(records); ++i) {
        count += ldns_rr_get_type(ldns_rr_list_rr(records, i)) == type;
    }
    return count;
}

} // namespace

class HMDNSProxyTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (::geteuid() != 0 || ::unshare(CLONE_NEWNET) != 0) {
            QSKIP("needs root for a network namespace of its own (port 53)");
        }
        // Loopback is down in a new namespace.
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq request{};
        std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
        request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
        QVERIFY(::ioctl(fd, SIOCSIFFLAGS, &request) == 0);
        ::close(fd);
        m_resolvers = std::make_unique<Resolvers>();
        m_played = boundSocket(SOCK_DGRAM, kPlayedResolver);
    }

    void cleanupTestCase()
    {
        m_resolvers.reset();
        ::close(m_played);
    }

    // Two queries of different rounds leave from different ports; an answer with the right
    // id from the right resolver is refused on the other query's socket.
    void answersCountOnlyOnTheSocketTheirQueryLeftFrom()
    {
        PlayedSetUp played;
        QVERIFY2(played.proxy.ready, played.proxy.error.c_str());
        int clients[3];
        Datagram asked[3];
        for (int i = 0; i < 3; ++i) {
            clients[i] = clientOfProxy(SOCK_DGRAM);
            const Bytes query = queryFor(qPrintable(QString("q%1.test").arg(i)), uint16_t(i + 1));
            ::send(clients[i], query.data(), query.size(), 0);
            asked[i] = receiveFrom(m_played);
            QVERIFY(!asked[i].bytes.empty());
            if (i == 1) {
                // The forgery, before the third query: the proxy has read it once that query
                // reaches the resolver.
                QVERIFY(asked[1].from.sin_port != asked[0].from.sin_port);
                const Bytes forged = answerFor(asked[0].bytes, "10.66.6.6");
                sendTo(m_played, forged, asked[1].from);
            }
        }
        const Bytes real = answerFor(asked[0].bytes, "10.1.1.1");
        sendTo(m_played, real, asked[0].from);
        const Datagram answer = receiveFrom(clients[0]);
        for (int fd : clients) {
            ::close(fd);
        }
        QCOMPARE(firstAddress(answer.bytes), QString("10.1.1.1"));
        QCOMPARE(LDNS_ID_WIRE(answer.bytes.data()), 1);
    }

    // The ports in use are replaced after their lifetime, and the old sockets are closed once
    // no answer is owed to them.
    void upstreamPortsAreReplacedAndTheOldOnesClosed()
    {
        PlayedSetUp played;
        QVERIFY2(played.proxy.ready, played.proxy.error.c_str());
        const int client = clientOfProxy(SOCK_DGRAM);
        const auto ask = [&](uint16_t id) {
            const Bytes query = queryFor("rotate.test", id);
            ::send(client, query.data(), query.size(), 0);
            const Datagram asked = receiveFrom(m_played);
            const Bytes reply = answerFor(asked.bytes, "10.2.2.2");
            sendTo(m_played, reply, asked.from);
            return receiveFrom(client).bytes.empty() ? 0 : ntohs(asked.from.sin_port);
        };
        std::set<uint16_t> first;
        for (uint16_t id = 1; id <= HMUpstreamSockets::kInUse; ++id) {
            first.insert(ask(id));
        }
        QVERIFY(!first.count(0));
        QCOMPARE(first.size(), HMUpstreamSockets::kInUse);
        const int descriptors = openDescriptors();

        played.clock.now += HMUpstreamSockets::kLifetimeMs;
        bool fresh = false;
        for (uint16_t id = 10; id < 10 + HMUpstreamSockets::kInUse + 1 && !fresh; ++id) {
            const uint16_t port = ask(id);
            QVERIFY(port != 0);
            fresh = first.count(port) == 0;
        }
        QVERIFY(fresh);
        played.clock.now += HMDNSProxy::kAttemptMs;
        QTRY_COMPARE(openDescriptors(), descriptors);
        ::close(client);
    }

    void truncatedAnswersAreAskedAgainOverTcpAndComeWhole_data()
    {
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QStringList>("tunnelResolvers");
        QTest::addColumn<int>("askedResolver"); // 0 the tunnel's, 1 the original one
        QTest::addColumn<int>("routes");
        QTest::addColumn<int>("via");
        QTest::addColumn<int>("aaaa");

        const QStringList tunnel{kTunnelResolver};
        QTest::newRow("inclusion, listed: tunnel, routed, AAAA removed")
            << Mode::Inclusion << "www.big.test" << tunnel << 0 << kAddresses << int(Via::Tunnel)
            << 0;
        QTest::newRow("inclusion, other: original resolver, passed on as it came")
            << Mode::Inclusion << "www.other.test" << tunnel << 1 << 0 << 0 << kAddresses;
        QTest::newRow("exclusion, listed: original resolver, routed via the original gateway")
            << Mode::Exclusion << "big.test" << tunnel << 1 << kAddresses << int(Via::Original)
            << kAddresses;
        QTest::newRow("off, first tunnel resolver refuses TCP: the next one answers")
            << Mode::Off << "www.other.test" << QStringList{kRefusingResolver, kTunnelResolver} << 0
            << 0 << 0 << 0;
    }

    void truncatedAnswersAreAskedAgainOverTcpAndComeWhole()
    {
        QFETCH(Mode, mode);
        QFETCH(QString, name);
        QFETCH(QStringList, tunnelResolvers);
        QFETCH(int, askedResolver);
        QFETCH(int, routes);
        QFETCH(int, via);
        QFETCH(int, aaaa);

        RecordingTable table;
        HMProxySystemClock clock;
        HMHostRoutes hostRoutes(table, clock);
        HMDNSQueryHandler handler(mode, HMDomainMatcher::fromText("big.test\n"), &hostRoutes);
        std::vector<uint32_t> tunnel;
        for (const QString &address : tunnelResolvers) {
            tunnel.push_back(inet_addr(address.toUtf8().constData()));
        }
        Bytes answer;
        const int before[2] = {m_resolvers->tcpQueries[0], m_resolvers->tcpQueries[1]};
        {
            RunningProxy proxy(handler, clock, &hostRoutes, tunnel, {inet_addr(kOriginalResolver)});
            QVERIFY2(proxy.ready, proxy.error.c_str());
            ldns_pkt *query = ldns_pkt_query_new(ldns_dname_new_frm_str(name.toUtf8().constData()),
                                                 LDNS_RR_TYPE_ANY, LDNS_RR_CLASS_IN, LDNS_RD);
            ldns_pkt_set_id(query, 0x4242);
            const Bytes wire = toWire(query);
            ldns_pkt_free(query);

            // Over UDP the truncated answer comes back as the resolver sent it.
            const int udp = clientOfProxy(SOCK_DGRAM);
            ::send(udp, wire.data(), wire.size(), 0);
            const Datagram truncated = receiveFrom(udp);
            ::close(udp);
            QVERIFY(truncated.bytes.size() >= LDNS_HEADER_SIZE);
            QVERIFY(LDNS_TC_WIRE(truncated.bytes.data()));
            QCOMPARE(LDNS_ANCOUNT(truncated.bytes.data()), 0);

            // Over TCP the proxy asks over TCP and passes on the whole answer.
            const int tcp = clientOfProxy(SOCK_STREAM);
            answer = framedExchange(tcp, wire);
            ::close(tcp);
        }

        ldns_pkt *packet = nullptr;
        QCOMPARE(ldns_wire2pkt(&packet, answer.data(), answer.size()), LDNS_STATUS_OK);
        const std::unique_ptr<ldns_pkt, void (*)(ldns_pkt *)> owned(packet, ldns_pkt_free);
        QCOMPARE(ldns_pkt_id(packet), uint16_t(0x4242));
        QVERIFY(!ldns_pkt_tc(packet));
        QCOMPARE(countOf(packet, LDNS_RR_TYPE_A), size_t(kAddresses));
        QCOMPARE(countOf(packet, LDNS_RR_TYPE_AAAA), size_t(aaaa));
        QVERIFY(answer.size() > 1232);
        QCOMPARE(m_resolvers->tcpQueries[askedResolver] - before[askedResolver], 1);
        QCOMPARE(m_resolvers->tcpQueries[1 - askedResolver] - before[1 - askedResolver], 0);
        QCOMPARE(int(table.routes.size()), routes);
        for (const auto &[address, routeVia] : table.routes) {
            QCOMPARE(int(routeVia), via);
        }
    }

private:
    std::unique_ptr<Resolvers> m_resolvers;
    int m_played = -1;
};

QTEST_GUILESS_MAIN(HMDNSProxyTest)
#include "HMDNSProxyTest.moc"
