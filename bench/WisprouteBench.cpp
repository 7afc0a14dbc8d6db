// hm-bench-wisproute: what the DNS proxy adds to a name lookup.
//
//   hm-bench-wisproute [--queries N] [--window W]      (root; defaults N = 20000, W = 32)
//
// In a network namespace of its own: an upstream resolver (dnsmasq answering *.bench.test
// itself), then three ways to ask it, all on loopback addresses of the namespace: directly,
// through wisproute (inclusion mode, half the names listed so half the answers set or
// refresh a host route), and through dnsmasq as a plain forwarder with its cache off
// (--cache-size=0). For each: latency of sequential queries (median and 99th percentile, in
// microseconds, 5000 in a row) and throughput with W queries in flight (best of 5 rounds
// that alternate the three, since other load on the machine only ever lowers it). Added latency is
// the median over the direct one. The two forwarders' own CPU time per query, summed over all
// rounds, is the figure the machine's other load moves least.
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ldns/ldns.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 5;

std::string g_ns;

bool sh(const std::string &command)
{
    return std::system(command.c_str()) == 0;
}

std::vector<uint8_t> query(const std::string &name, uint16_t id)
{
    ldns_pkt *packet = ldns_pkt_query_new(ldns_dname_new_frm_str(name.c_str()), LDNS_RR_TYPE_A,
                                          LDNS_RR_CLASS_IN, LDNS_RD);
    ldns_pkt_set_id(packet, id);
    uint8_t *data = nullptr;
    size_t size = 0;
    ldns_pkt2wire(&data, packet, &size);
    std::vector<uint8_t> bytes(data, data + size);
    free(data);
    ldns_pkt_free(packet);
    return bytes;
}

int socketTo(const char *address)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(53);
    ::inet_pton(AF_INET, address, &to.sin_addr);
    ::connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    return fd;
}

// Pre-built queries, names alternating between listed and unlisted.
std::vector<std::vector<uint8_t>> workload(int count)
{
    std::vector<std::vector<uint8_t>> queries;
    for (int i = 0; i < count; ++i) {
        const std::string name = (i % 2 ? "www.listed.bench.test" : "other.bench.test");
        queries.push_back(query(name, static_cast<uint16_t>(i)));
    }
    return queries;
}

struct Figures
{
    double p50 = 0;
    double p99 = 0;
    double qps = 0; // the best round: the machine's other load only ever lowers it
    int lost = 0;
    double cpuSeconds = 0; // the forwarder's own, over the throughput rounds
    long queries = 0;
};

// User and system time of a process so far, in seconds (0 when it cannot be read). Unlike
// queries per second, this is hardly moved by the machine's other load.
double cpuSecondsOf(long pid)
{
    if (pid <= 0) {
        return 0;
    }
    std::FILE *file = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
    if (!file) {
        return 0;
    }
    char line[1024] = {};
    const bool read = std::fgets(line, sizeof(line), file) != nullptr;
    std::fclose(file);
    const char *afterName = read ? std::strrchr(line, ')') : nullptr;
    unsigned long user = 0;
    unsigned long system = 0;
    if (!afterName ||
        std::sscanf(afterName + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                    &system) != 2) {
        return 0;
    }
    return double(user + system) / double(::sysconf(_SC_CLK_TCK));
}

long pidFrom(const std::string &path)
{
    std::FILE *file = std::fopen(path.c_str(), "r");
    long pid = 0;
    if (file) {
        if (std::fscanf(file, "%ld", &pid) != 1) {
            pid = 0;
        }
        std::fclose(file);
    }
    return pid;
}

void latency(const char *address, const std::vector<std::vector<uint8_t>> &queries,
             Figures &figures)
{
    const int fd = socketTo(address);
    uint8_t reply[4096];
    std::vector<double> micros;
    const size_t sequential = std::min<size_t>(queries.size(), 5000);
    for (size_t i = 0; i < sequential; ++i) {
        const auto start = Clock::now();
        ::send(fd, queries[i].data(), queries[i].size(), 0);
        pollfd watch{fd, POLLIN, 0};
        if (::poll(&watch, 1, 2000) <= 0 || ::recv(fd, reply, sizeof(reply), 0) <= 0) {
            ++figures.lost;
            continue;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    std::sort(micros.begin(), micros.end());
    if (!micros.empty()) {
        figures.p50 = micros[micros.size() / 2];
        figures.p99 = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
    }
    ::close(fd);
}

// Keeps `window` queries in flight until all are answered or time out; queries per second.
double throughput(const char *address, const std::vector<std::vector<uint8_t>> &queries, int window,
                  Figures &figures)
{
    const int fd = socketTo(address);
    uint8_t reply[4096];
    size_t sent = 0;
    size_t answered = 0;
    int lost = 0;
    const auto start = Clock::now();
    while (answered + size_t(lost) < queries.size()) {
        while (sent < queries.size() && sent - answered < size_t(window)) {
            ::send(fd, queries[sent].data(), queries[sent].size(), 0);
            ++sent;
        }
        pollfd watch{fd, POLLIN, 0};
        if (::poll(&watch, 1, 1000) <= 0) {
            lost += int(sent - answered);
            answered = sent;
            continue;
        }
        while (::recv(fd, reply, sizeof(reply), MSG_DONTWAIT) > 0) {
            ++answered;
        }
    }
    figures.lost += lost;
    ::close(fd);
    return double(answered - size_t(lost)) /
           std::chrono::duration<double>(Clock::now() - start).count();
}

void teardown()
{
    sh("ip netns pids " + g_ns +
       " 2>/dev/null | xargs -r kill 2>/dev/null; sleep 0.3; ip netns del " + g_ns +
       " 2>/dev/null");
}

} // namespace

int main(int argc, char **argv)
{
    int count = 20000;
    int window = 32;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::string(argv[i]) == "--queries") {
            count = std::atoi(argv[i + 1]);
        } else if (std::string(argv[i]) == "--window") {
            window = std::atoi(argv[i + 1]);
        }
    }
    if (::geteuid() != 0) {
        std::fprintf(stderr, "hm-bench-wisproute: needs root (network namespace, port 53)\n");
        return 2;
    }
    const std::string wisproute = HM_BENCH_WISPROUTE;
    const std::string dir = "/tmp/hm-bench-wisproute-" + std::to_string(::getpid());
    g_ns = "hmwbench" + std::to_string(::getpid());
    const std::string in = "ip netns exec " + g_ns + " ";
    const std::string quiet = " >/dev/null 2>&1";
    const bool ready =
        sh("mkdir -p " + dir + " && printf 'listed.bench.test\\n' >" + dir +
           "/domains && printf 'nameserver 10.231.53.1\\n' >" + dir + "/originals") &&
        sh("ip netns add " + g_ns) && sh("ip -n " + g_ns + " link set lo up") &&
        sh("ip -n " + g_ns + " addr add 10.231.53.1/32 dev lo") &&
        sh("ip -n " + g_ns + " addr add 127.0.0.2/8 dev lo 2>/dev/null; true") &&
        sh("ip -n " + g_ns + " tuntap add dev tunb mode tun && ip -n " + g_ns +
           " link set tunb up") &&
        sh("ip -n " + g_ns + " link add phys type veth peer name physp && ip -n " + g_ns +
           " link set phys up && ip -n " + g_ns + " link set physp up && ip -n " + g_ns +
           " addr add 192.0.2.2/24 dev phys") &&
        sh(in +
           "dnsmasq --conf-file=/dev/null --no-resolv --no-hosts --bind-interfaces "
           "--listen-address=10.231.53.1 --address=/bench.test/10.1.1.1 --pid-file=" +
           dir + "/upstream.pid" + quiet) &&
        sh(in +
           "dnsmasq --conf-file=/dev/null --no-resolv --no-hosts --bind-interfaces "
           "--listen-address=127.0.0.2 --cache-size=0 --server=10.231.53.1 --pid-file=" +
           dir + "/forwarder.pid" + quiet) &&
        sh(in + wisproute + " -f " + dir + "/domains -s " + dir + " -log " + dir +
           "/wisproute.log -server 192.0.2.1 -tap tunb -wisproute wisproute -originals " + dir +
           "/originals -tunnel-dns 10.231.53.1 </dev/null >/dev/null 2>&1 & echo $! >" + dir +
           "/wisproute.pid") &&
        sh("sleep 0.5");
    if (!ready) {
        std::fprintf(stderr, "hm-bench-wisproute: the namespace could not be set up\n");
        teardown();
        return 1;
    }
    const int home = ::open("/proc/self/ns/net", O_RDONLY);
    const int netns = ::open(("/var/run/netns/" + g_ns).c_str(), O_RDONLY);
    if (netns < 0 || ::setns(netns, CLONE_NEWNET) != 0) {
        std::fprintf(stderr, "hm-bench-wisproute: cannot enter %s\n", g_ns.c_str());
        teardown();
        return 1;
    }
    const auto queries = workload(count);
    struct Target
    {
        const char *label;
        const char *address;
        long pid; // the forwarder's, 0 for none
    };
    const Target targets[] = {
        {"upstream directly", "10.231.53.1", 0},
        {"wisproute", "127.0.0.1", pidFrom(dir + "/wisproute.pid")},
        {"dnsmasq --cache-size=0", "127.0.0.2", pidFrom(dir + "/forwarder.pid")}};
    std::printf("%d queries per round, %d rounds, %d in flight for throughput (best round)\n",
                count, kRounds, window);
    std::printf("%-24s %10s %10s %12s %10s %10s %6s\n", "path", "p50 us", "p99 us", "added p50",
                "queries/s", "CPU us/q", "lost");
    // Rounds alternate the targets so that a burst of other load hits them alike.
    Figures figures[3];
    for (int round = 0; round < kRounds; ++round) {
        for (int t = 0; t < 3; ++t) {
            const double cpuBefore = cpuSecondsOf(targets[t].pid);
            figures[t].qps = std::max(figures[t].qps,
                                      throughput(targets[t].address, queries, window, figures[t]));
            figures[t].cpuSeconds += cpuSecondsOf(targets[t].pid) - cpuBefore;
            figures[t].queries += long(queries.size());
        }
    }
    for (int t = 0; t < 3; ++t) {
        latency(targets[t].address, queries, figures[t]);
    }
    const double direct = figures[0].p50;
    for (int t = 0; t < 3; ++t) {
        const Target &target = targets[t];
        const Figures &f = figures[t];
        std::printf("%-24s %10.1f %10.1f %12.1f %10.0f %10.1f %6d\n", target.label, f.p50, f.p99,
                    f.p50 - direct, f.qps, f.queries ? f.cpuSeconds * 1e6 / double(f.queries) : 0.0,
                    f.lost);
    }
    std::fflush(stdout);
    // Back home first: the namespace's processes are about to be ended, this one not.
    ::setns(home, CLONE_NEWNET);
    ::close(netns);
    ::close(home);
    teardown();
    sh("rm -rf " + dir);
    return 0;
}
