// The proxy's sockets on real packets, in a network namespace of the test's own (port 53 is
// free there). Resolvers answer over UDP truncated, over TCP whole; a resolver the test plays
// itself shows which ports the queries leave from, and forges answers.
#include "HMDNSProxy.h"
#include "HMDNSTestPackets.h"
#include "HMHostRoutes.h"
#include "HMProxyLog.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <arpa/inet.h>
#include <functional>
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
Q_DECLARE_METATYPE(Mode)

namespace {

constexpr int kAddresses = 80; // A and AAAA each: about 3 kB, well past 512 and 1232
const char *const kTunnelResolver = "127.0.0.53";
const char *const kOriginalResolver = "127.0.0.54";
const char *const kRefusingResolver = "127.0.0.55"; // nothing listens there
const char *const kPlayedResolver = "127.0.0.56";   // the test answers for it

// Runs `body` on a thread of its own, with a descriptor that turns readable when it should end.
class Worker
{
public:
    explicit Worker(std::function<void(int)> body) : m_thread([this, body] { body(m_stop); }) {}
    ~Worker()
    {
        const uint64_t one = 1;
        (void)!::write(m_stop, &one, sizeof(one));
        m_thread.join();
        ::close(m_stop);
    }

private:
    int m_stop = ::eventfd(0, EFD_CLOEXEC);
    std::thread m_thread;
};

// One A record for the question asked.
Bytes answerFor(const Bytes &query, const char *address)
{
    return replyTo(query, false, {QString("@ 300 IN A ") + address});
}

sockaddr_in addressOf(const char *address, uint16_t port = 53)
{
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    in.sin_addr.s_addr = inet_addr(address);
    return in;
}

int boundSocket(int type, const char *address)
{
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in local = addressOf(address);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof(local)) != 0 ||
        (type == SOCK_STREAM && ::listen(fd, 8) != 0)) {
        qFatal("cannot bind %s:53: %s", address, strerror(errno));
    }
    return fd;
}

int clientOfProxy(int type)
{
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in proxy = addressOf("127.0.0.1");
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&proxy), sizeof(proxy)) != 0) {
        qFatal("cannot reach the proxy: %s", strerror(errno));
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

// A DNS message over TCP: two bytes of length first.
bool sendFramed(int fd, const Bytes &message)
{
    Bytes framed{uint8_t(message.size() >> 8), uint8_t(message.size() & 0xff)};
    framed.insert(framed.end(), message.begin(), message.end());
    return ::send(fd, framed.data(), framed.size(), MSG_NOSIGNAL) == ssize_t(framed.size());
}

Bytes receiveFramed(int fd)
{
    uint8_t prefix[2];
    if (!readFully(fd, prefix, 2)) {
        return {};
    }
    Bytes message((size_t(prefix[0]) << 8) | prefix[1]);
    return readFully(fd, message.data(), message.size()) ? message : Bytes{};
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
            m_worker.emplace([this](int stop) { m_proxy.run(stop); });
        }
    }
    bool ready = false;
    std::string error;

private:
    QTemporaryDir m_dir;
    HMProxyLog m_log;
    HMDNSProxy m_proxy;
    std::optional<Worker> m_worker;
};

// A proxy in the plain mode whose only resolver is the one the test plays, on a clock the
// test steps.
struct PlayedSetUp
{
    SteppedClock clock;
    HMDNSQueryHandler handler{HMDNSQueryHandler::Mode::Off, HMDomainMatcher::fromText(""), nullptr};
    RunningProxy proxy{handler, clock, nullptr, {inet_addr(kPlayedResolver)}, {}};
};

// A resolver on its own address: over UDP only the question with TC set, over TCP the
// whole set of addresses. Counts its TCP queries.
class Resolver
{
public:
    explicit Resolver(const char *address)
        : m_udp(boundSocket(SOCK_DGRAM, address)), m_tcp(boundSocket(SOCK_STREAM, address))
    {}
    ~Resolver()
    {
        m_worker.reset();
        ::close(m_udp);
        ::close(m_tcp);
    }
    std::atomic<int> tcpQueries{0};

private:
    static Bytes answer(const Bytes &query, bool overTcp)
    {
        QStringList records;
        for (int i = 0; overTcp && i < kAddresses; ++i) {
            records << QString("@ 300 IN A 10.9.%1.%2").arg(i / 200).arg(i % 200 + 1)
                    << QString("@ 300 IN AAAA fd00::%1").arg(i + 1);
        }
        return replyTo(query, !overTcp, records);
    }

    void serve(int stop)
    {
        for (;;) {
            pollfd fds[3] = {{stop, POLLIN, 0}, {m_udp, POLLIN, 0}, {m_tcp, POLLIN, 0}};
            ::poll(fds, 3, -1);
            if (fds[0].revents) {
                return;
            }
            if (fds[1].revents) {
                const Datagram query = receiveFrom(m_udp);
                sendTo(m_udp, answer(query.bytes, false), query.from);
            }
            if (fds[2].revents) {
                const int client = ::accept(m_tcp, nullptr, nullptr);
                const Bytes query = receiveFramed(client);
                if (!query.empty()) {
                    ++tcpQueries;
                    sendFramed(client, answer(query, true));
                }
                ::close(client);
            }
        }
    }

    int m_udp;
    int m_tcp;
    std::optional<Worker> m_worker{std::in_place, [this](int stop) { serve(stop); }};
};

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
        m_resolvers[0] = std::make_unique<Resolver>(kTunnelResolver);
        m_resolvers[1] = std::make_unique<Resolver>(kOriginalResolver);
        m_played = boundSocket(SOCK_DGRAM, kPlayedResolver);
    }

    void cleanupTestCase()
    {
        m_resolvers[0].reset();
        m_resolvers[1].reset();
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
            const Bytes query = queryFor(QString("q%1.test").arg(i), uint16_t(i + 1));
            ::send(clients[i], query.data(), query.size(), 0);
            asked[i] = receiveFrom(m_played);
            QVERIFY(!asked[i].bytes.empty());
            if (i == 1) {
                // The forgery, before the third query: the proxy has read it once that query
                // reaches the resolver.
                QVERIFY(asked[1].from.sin_port != asked[0].from.sin_port);
                sendTo(m_played, answerFor(asked[0].bytes, "10.66.6.6"), asked[1].from);
            }
        }
        sendTo(m_played, answerFor(asked[0].bytes, "10.1.1.1"), asked[0].from);
        const Datagram answer = receiveFrom(clients[0]);
        for (int fd : clients) {
            ::close(fd);
        }
        QCOMPARE(answerRecords(answer.bytes), QStringList{"q0.test. 300 IN A 10.1.1.1"});
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
            sendTo(m_played, answerFor(asked.bytes, "10.2.2.2"), asked.from);
            return receiveFrom(client).bytes.empty() ? 0 : ntohs(asked.from.sin_port);
        };
        std::set<uint16_t> first;
        for (uint16_t id = 1; id <= HMUpstreamSockets::kInUse; ++id) {
            first.insert(ask(id));
        }
        QVERIFY(!first.count(0));
        QCOMPARE(first.size(), HMUpstreamSockets::kInUse);
        const uint descriptors = QDir("/proc/self/fd").count();

        played.clock.now += HMUpstreamSockets::kLifetimeMs;
        bool fresh = false;
        for (uint16_t id = 10; id < 10 + HMUpstreamSockets::kInUse + 1 && !fresh; ++id) {
            const uint16_t port = ask(id);
            QVERIFY(port != 0);
            fresh = first.count(port) == 0;
        }
        QVERIFY(fresh);
        played.clock.now += HMDNSProxy::kAttemptMs;
        QTRY_COMPARE(QDir("/proc/self/fd").count(), descriptors);
        ::close(client);
    }

    // A truncated answer goes to the client as it came; the client's TCP query then goes to
    // the resolvers over TCP and the whole answer comes back, routed and stripped by mode.
    void truncatedAnswersAreAskedAgainOverTcpAndComeWhole_data()
    {
        QTest::addColumn<Mode>("mode");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QStringList>("tunnelResolvers");
        QTest::addColumn<int>("askedResolver"); // 0 the tunnel's, 1 the original one
        QTest::addColumn<int>("routes");
        QTest::addColumn<int>("via");
        QTest::addColumn<int>("aaaa");

        const auto row = [](const char *name, Mode mode, const char *domain, int askedResolver,
                            int routes, Via via, int aaaa,
                            const QStringList &tunnel = {kTunnelResolver}) {
            QTest::newRow(name) << mode << domain << tunnel << askedResolver << routes << int(via)
                                << aaaa;
        };
        row("inclusion, listed: tunnel, routed, AAAA removed", Mode::Inclusion, "www.big.test", 0,
            kAddresses, Via::Tunnel, 0);
        row("inclusion, other: original resolver, passed on as it came", Mode::Inclusion,
            "www.other.test", 1, 0, Via::Tunnel, kAddresses);
        row("exclusion, listed: original resolver, routed via the original gateway",
            Mode::Exclusion, "big.test", 1, kAddresses, Via::Original, kAddresses);
        row("off, first tunnel resolver refuses TCP: the next one answers", Mode::Off,
            "www.other.test", 0, 0, Via::Tunnel, 0, {kRefusingResolver, kTunnelResolver});
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
        const int before[2] = {m_resolvers[0]->tcpQueries, m_resolvers[1]->tcpQueries};
        {
            RunningProxy proxy(handler, clock, &hostRoutes, tunnel, {inet_addr(kOriginalResolver)});
            QVERIFY2(proxy.ready, proxy.error.c_str());
            const Bytes query = queryFor(name, 0x4242, LDNS_RR_TYPE_ANY);

            const int udp = clientOfProxy(SOCK_DGRAM);
            ::send(udp, query.data(), query.size(), 0);
            const Datagram truncated = receiveFrom(udp);
            ::close(udp);
            QVERIFY(truncated.bytes.size() >= LDNS_HEADER_SIZE);
            QVERIFY(LDNS_TC_WIRE(truncated.bytes.data()));
            QCOMPARE(LDNS_ANCOUNT(truncated.bytes.data()), 0);

            const int tcp = clientOfProxy(SOCK_STREAM);
            answer = sendFramed(tcp, query) ? receiveFramed(tcp) : Bytes{};
            ::close(tcp);
        }

        const Packet packet = parsed(answer);
        QVERIFY(packet);
        QCOMPARE(ldns_pkt_id(packet.get()), uint16_t(0x4242));
        QVERIFY(!ldns_pkt_tc(packet.get()));
        const QStringList records = answerRecords(answer);
        QCOMPARE(records.filter(" IN A ").size(), kAddresses);
        QCOMPARE(records.filter(" IN AAAA ").size(), aaaa);
        QVERIFY(answer.size() > 1232);
        QCOMPARE(m_resolvers[askedResolver]->tcpQueries - before[askedResolver], 1);
        QCOMPARE(m_resolvers[1 - askedResolver]->tcpQueries - before[1 - askedResolver], 0);
        QCOMPARE(int(table.routes.size()), routes);
        for (const auto &[address, routeVia] : table.routes) {
            QCOMPARE(int(routeVia), via);
        }
    }

private:
    std::unique_ptr<Resolver> m_resolvers[2];
    int m_played = -1;
};

QTEST_GUILESS_MAIN(HMDNSProxyTest)
#include "HMDNSProxyTest.moc"
