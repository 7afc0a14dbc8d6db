// Datagrams moved in batches: one recvmmsg reads what a socket holds (up to kCapacity), one
// sendmmsg writes what the proxy queued. Under load a DNS proxy spends most of its time
// entering the kernel, four times per query when each datagram is its own call; batching
// turns that into a few calls per poll round. The buffers are allocated once and reused.
#pragma once

#include <array>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <vector>

class HMDatagramBatch
{
public:
    static constexpr size_t kCapacity = 32;

    // Each datagram read keeps at most bufferSize bytes; a longer one is reported with
    // truncated() set.
    explicit HMDatagramBatch(size_t bufferSize);
    // The headers point into the object itself.
    HMDatagramBatch(const HMDatagramBatch &) = delete;
    HMDatagramBatch &operator=(const HMDatagramBatch &) = delete;

    // Reads what fd holds without waiting; returns how many datagrams (0 when none).
    size_t receive(int fd);
    uint8_t *data(size_t i) { return m_buffers[i].data(); }
    size_t size(size_t i) const { return m_headers[i].msg_len; }
    bool truncated(size_t i) const { return (m_headers[i].msg_hdr.msg_flags & MSG_TRUNC) != 0; }
    const sockaddr_in &from(size_t i) const { return m_addresses[i]; }

private:
    std::array<std::vector<uint8_t>, kCapacity> m_buffers;
    std::array<sockaddr_in, kCapacity> m_addresses{};
    std::array<iovec, kCapacity> m_vectors{};
    std::array<mmsghdr, kCapacity> m_headers{};
    size_t m_filled = 0;
};

// Outgoing datagrams, each with a tag the caller uses to find out whose one failed.
class HMDatagramQueue
{
public:
    void add(const sockaddr_in &to, const uint8_t *data, size_t size, uint32_t tag = 0);
    size_t count() const { return m_count; }
    uint32_t tag(size_t i) const { return m_items[i].tag; }
    // Sends the queued datagrams from `start` on; returns how many went before the first
    // that failed (errno then tells why), as sendmmsg does.
    int send(int fd, size_t start);
    void clear() { m_count = 0; }

private:
    struct Item
    {
        sockaddr_in to{};
        std::vector<uint8_t> bytes; // capacity kept between rounds
        uint32_t tag = 0;
    };
    std::vector<Item> m_items;
    std::vector<mmsghdr> m_headers;
    std::vector<iovec> m_vectors;
    size_t m_count = 0;
};
