#include "HMDatagramBatch.h"

#include <algorithm>
#include <cerrno>

HMDatagramBatch::HMDatagramBatch(size_t bufferSize)
{
    for (size_t i = 0; i < kCapacity; ++i) {
        m_buffers[i].resize(bufferSize);
        m_vectors[i] = {m_buffers[i].data(), bufferSize};
        msghdr &header = m_headers[i].msg_hdr;
        header.msg_name = &m_addresses[i];
        header.msg_namelen = sizeof(sockaddr_in);
        header.msg_iov = &m_vectors[i];
        header.msg_iovlen = 1;
    }
}

size_t HMDatagramBatch::receive(int fd)
{
    // The kernel only changes the entries it filled last time.
    for (size_t i = 0; i < m_filled; ++i) {
        m_headers[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
        m_headers[i].msg_hdr.msg_flags = 0;
    }
    int count;
    do {
        count = ::recvmmsg(fd, m_headers.data(), kCapacity, MSG_DONTWAIT, nullptr);
    } while (count < 0 && errno == EINTR);
    m_filled = count < 0 ? 0 : static_cast<size_t>(count);
    return m_filled;
}

void HMDatagramQueue::add(const sockaddr_in &to, const uint8_t *data, size_t size, uint32_t tag)
{
    if (m_count == m_items.size()) {
        m_items.emplace_back();
    }
    Item &item = m_items[m_count++];
    item.to = to;
    item.bytes.assign(data, data + size);
    item.tag = tag;
}

int HMDatagramQueue::send(int fd, size_t start)
{
    if (start >= m_count) {
        return 0;
    }
    m_headers.resize(m_count);
    m_vectors.resize(m_count);
    for (size_t i = start; i < m_count; ++i) {
        m_vectors[i] = {m_items[i].bytes.data(), m_items[i].bytes.size()};
        msghdr &header = m_headers[i].msg_hdr;
        header = {};
        header.msg_name = &m_items[i].to;
        header.msg_namelen = sizeof(sockaddr_in);
        header.msg_iov = &m_vectors[i];
        header.msg_iovlen = 1;
    }
    int sent;
    do {
        sent = ::sendmmsg(fd, m_headers.data() + start,
                          static_cast<unsigned>(std::min<size_t>(m_count - start, 1024)),
                          MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? 0 : sent;
}
