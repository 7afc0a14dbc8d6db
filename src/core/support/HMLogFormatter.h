// Formats every log line as "yyyy-MM-dd HH:mm:ss.SSS [E]HMVPNManager:227> text".
//
// One shared instance counts the loggers that use it. While a single logger formats, one
// date formatter serves; once several loggers may format on their own threads, each
// thread gets its own (date formatting state is not shared across threads).
// HMSpdlogFormatter adapts it to the logging library's per-sink formatter interface.
#pragma once

#include <QDateTime>
#include <QString>
#include <atomic>
#include <memory>
#include <mutex>
#include <spdlog/formatter.h>

struct HMLogMessage
{
    QString text;
    int flag = 1;
    QDateTime timestamp;
    QString file; // full path or bare name; the formatter keeps only the base name
    unsigned line = 0;
};

class HMLogDateFormatter
{
public:
    QString stringFromDate(const QDateTime &date) const;
};

class HMLogFormatter
{
public:
    static HMLogFormatter &instance();

    QString formatLogMessage(const HMLogMessage &message);
    void didAddToLogger();
    void willRemoveFromLogger();
    int loggerCount() const { return m_loggerCount.load(); }

    std::unique_ptr<HMLogDateFormatter> makeFormatter() const;
    HMLogDateFormatter &dateFormatter();

    static QString levelLetter(int flag);
    static QString sourceFileName(const QString &path);

private:
    HMLogFormatter() = default;

    std::atomic<int> m_loggerCount{0};
    std::once_flag m_sharedOnce;
    std::unique_ptr<HMLogDateFormatter> m_sharedFormatter;
};

class HMSpdlogFormatter : public spdlog::formatter
{
public:
    HMSpdlogFormatter();
    ~HMSpdlogFormatter() override;
    HMSpdlogFormatter(const HMSpdlogFormatter &) = delete;
    HMSpdlogFormatter &operator=(const HMSpdlogFormatter &) = delete;

    void format(const spdlog::details::log_msg &msg, spdlog::memory_buf_t &dest) override;
    std::unique_ptr<spdlog::formatter> clone() const override;
};
