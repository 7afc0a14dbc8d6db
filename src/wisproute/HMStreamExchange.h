// One query asked of one resolver over TCP: a non-blocking connect, the query written with
// its two-byte length, the answer read back whole. A client that asked over TCP did so
// because the answer over UDP came back truncated, so its query must reach the resolver over
// TCP too, or it would get the truncated answer again. The proxy's poll loop drives it:
// it polls fd() for events() and calls advance() when the descriptor is ready.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class HMStreamExchange
{
public:
    enum class State
    {
        Busy,
        Done,
        Failed,
    };

    HMStreamExchange() = default;
    ~HMStreamExchange();
    HMStreamExchange(const HMStreamExchange &) = delete;
    HMStreamExchange &operator=(const HMStreamExchange &) = delete;

    // Starts connecting; false with the reason when not even that was possible.
    bool start(uint32_t address, uint16_t port, const std::vector<uint8_t> &query,
               std::string *error);
    int fd() const { return m_fd; }
    short events() const;
    State advance();
    // The answer without its length prefix, once Done; the reason, once Failed.
    std::vector<uint8_t> &answer() { return m_in; }
    const std::string &problem() const { return m_problem; }

private:
    State fail(const std::string &problem);

    int m_fd = -1;
    bool m_connected = false;
    std::vector<uint8_t> m_out; // the framed query
    size_t m_written = 0;
    std::vector<uint8_t> m_in;
    size_t m_expected = 0; // answer length, once its prefix is read
    uint8_t m_prefix[2]{};
    size_t m_prefixRead = 0;
    std::string m_problem;
};
