#include "HMLogCapture.h"

#include "HMLogFormatter.h"
#include "HMLogging.h"

#include <mutex>
#include <spdlog/sinks/base_sink.h>

struct HMLogCapture::Sink : public spdlog::sinks::base_sink<std::mutex>
{
    QStringList captured;

    QStringList snapshot()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return captured;
    }
    void reset()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        captured.clear();
    }

protected:
    void sink_it_(const spdlog::details::log_msg &msg) override
    {
        spdlog::memory_buf_t formatted;
        formatter_->format(msg, formatted);
        captured.append(
            QString::fromUtf8(formatted.data(), static_cast<qsizetype>(formatted.size()))
                .trimmed());
    }
    void flush_() override {}
};

HMLogCapture::HMLogCapture() : m_sink(std::make_shared<Sink>())
{
    m_sink->set_formatter(std::make_unique<HMSpdlogFormatter>());
    HMLogging::addSink(m_sink);
}

HMLogCapture::~HMLogCapture()
{
    HMLogging::removeSink(m_sink);
}

QStringList HMLogCapture::lines() const
{
    return m_sink->snapshot();
}

bool HMLogCapture::contains(const QString &text) const
{
    const QStringList all = lines();
    for (const QString &line : all) {
        if (line.contains(text)) {
            return true;
        }
    }
    return false;
}

void HMLogCapture::clear()
{
    m_sink->reset();
}
