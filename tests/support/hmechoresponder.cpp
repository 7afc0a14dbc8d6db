// A host with a chosen ICMP round trip, for tests and benchmarks on kernels without netem.
//
//     hmechoresponder <delay-ms> [--decoy]
//
// Moves into a network namespace of its own, turns the kernel's echo replies off there and
// answers every echo request itself after <delay-ms> milliseconds (-1: never). With
// --decoy, each real reply is preceded by one whose sequence number was never sent, which
// a prober must ignore. Requests whose payload starts with "hm-lab-warmup" are answered at
// once: the lab uses them to know the link works before a test measures anything.
// Prints "ready" once the namespace and the socket exist (the lab then moves one end of a
// veth pair into it by pid). Exits when its standard input closes, so it never outlives
// the test that started it; the namespace and its links vanish with it.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Reply
{
    Clock::time_point due;
    sockaddr_in destination;
    std::vector<unsigned char> packet;
};

unsigned short checksum(const unsigned char *data, size_t length)
{
    unsigned long sum = 0;
    for (size_t i = 0; i + 1 < length; i += 2) {
        sum += static_cast<unsigned long>((data[i] << 8) | data[i + 1]);
    }
    if (length % 2 != 0) {
        sum += static_cast<unsigned long>(data[length - 1] << 8);
    }
    while (sum >> 16) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<unsigned short>(~sum & 0xFFFF);
}

void setChecksum(std::vector<unsigned char> &packet)
{
    packet[2] = packet[3] = 0;
    const unsigned short sum = checksum(packet.data(), packet.size());
    packet[2] = static_cast<unsigned char>(sum >> 8);
    packet[3] = static_cast<unsigned char>(sum & 0xFF);
}

bool writeFile(const char *path, const char *text)
{
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const ssize_t length = static_cast<ssize_t>(std::strlen(text));
    const bool ok = ::write(fd, text, static_cast<size_t>(length)) == length;
    ::close(fd);
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <delay-ms|-1> [--decoy]\n", argv[0]);
        return 2;
    }
    const long delayMs = std::strtol(argv[1], nullptr, 10);
    const bool decoy = argc > 2 && std::strcmp(argv[2], "--decoy") == 0;

    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::unshare(CLONE_NEWNET) != 0) {
        std::fprintf(stderr, "unshare(CLONE_NEWNET): %s\n", std::strerror(errno));
        return 1;
    }
    if (!writeFile("/proc/sys/net/ipv4/icmp_echo_ignore_all", "1")) {
        std::fprintf(stderr, "icmp_echo_ignore_all: %s\n", std::strerror(errno));
        return 1;
    }
    const int raw = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (raw < 0) {
        std::fprintf(stderr, "raw socket: %s\n", std::strerror(errno));
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);

    std::deque<Reply> pending; // by due time
    const auto schedule = [&pending](Reply reply) {
        const auto at = std::upper_bound(
            pending.begin(), pending.end(), reply.due,
            [](Clock::time_point due, const Reply &other) { return due < other.due; });
        pending.insert(at, std::move(reply));
    };
    std::vector<unsigned char> buffer(65535);
    for (;;) {
        int timeoutMs = -1;
        if (!pending.empty()) {
            const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
                pending.front().due - Clock::now());
            timeoutMs = wait.count() > 0 ? static_cast<int>(wait.count()) : 0;
        }
        pollfd fds[2] = {{raw, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (::poll(fds, 2, timeoutMs) < 0 && errno != EINTR) {
            return 1;
        }
        if (fds[1].revents != 0) {
            char sink[256];
            if (::read(STDIN_FILENO, sink, sizeof sink) <= 0) {
                return 0;
            }
        }
        if (fds[0].revents & POLLIN) {
            sockaddr_in from{};
            socklen_t fromLength = sizeof from;
            const ssize_t n = ::recvfrom(raw, buffer.data(), buffer.size(), 0,
                                         reinterpret_cast<sockaddr *>(&from), &fromLength);
            const size_t headerLength = n > 0 ? static_cast<size_t>(buffer[0] & 0x0F) * 4 : 0;
            if (n > 0 && static_cast<size_t>(n) >= headerLength + 8 && buffer[headerLength] == 8 &&
                buffer[headerLength + 1] == 0) {
                std::vector<unsigned char> reply(buffer.begin() + static_cast<long>(headerLength),
                                                 buffer.begin() + n);
                reply[0] = 0;
                const bool warmup = reply.size() >= 8 + 13 &&
                                    std::memcmp(reply.data() + 8, "hm-lab-warmup", 13) == 0;
                if (warmup || delayMs >= 0) {
                    const auto due = Clock::now() + std::chrono::milliseconds(warmup ? 0 : delayMs);
                    if (decoy && !warmup) {
                        std::vector<unsigned char> fake = reply;
                        const unsigned sequence = ((fake[6] << 8) | fake[7]) + 1000u;
                        fake[6] = static_cast<unsigned char>((sequence >> 8) & 0xFF);
                        fake[7] = static_cast<unsigned char>(sequence & 0xFF);
                        setChecksum(fake);
                        schedule(Reply{due, from, fake});
                    }
                    setChecksum(reply);
                    schedule(Reply{due, from, reply});
                }
            }
        }
        while (!pending.empty() && pending.front().due <= Clock::now()) {
            const Reply &reply = pending.front();
            ::sendto(raw, reply.packet.data(), reply.packet.size(), 0,
                     reinterpret_cast<const sockaddr *>(&reply.destination),
                     sizeof reply.destination);
            pending.pop_front();
        }
    }
}
