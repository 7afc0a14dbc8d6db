#include "HMLogFormatter.h"

#include <QFileInfo>
#include <QHash>
#include <QThreadStorage>
#include <chrono>

QString HMLogDateFormatter::stringFromDate(const QDateTime &date) const
{
    return date.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"));
}

HMLogFormatter &HMLogFormatter::instance()
{
    static HMLogFormatter formatter;
    return formatter;
}

QString HMLogFormatter::levelLetter(int flag)
{
    switch (flag) {
    case 1:
        return QStringLiteral("E");
    case 2:
        return QStringLiteral("W");
    case 4:
        return QStringLiteral("I");
    default:
        return QStringLiteral("V");
    }
}

QString HMLogFormatter::sourceFileName(const QString &path)
{
    return QFileInfo(path).completeBaseName();
}

QString HMLogFormatter::formatLogMessage(const HMLogMessage &message)
{
    return QStringLiteral("%1 [%2]%3:%4> %5")
        .arg(dateFormatter().stringFromDate(message.timestamp), levelLetter(message.flag),
             sourceFileName(message.file), QString::number(message.line), message.text);
}

void HMLogFormatter::didAddToLogger()
{
    m_loggerCount.fetch_add(1);
}

void HMLogFormatter::willRemoveFromLogger()
{
    m_loggerCount.fetch_sub(1);
}

std::unique_ptr<HMLogDateFormatter> HMLogFormatter::makeFormatter() const
{
    return std::make_unique<HMLogDateFormatter>();
}

HMLogDateFormatter &HMLogFormatter::dateFormatter()
{
    if (m_loggerCount.load() > 1) {
        // Keyed like the old thread dictionary entry so the intent stays searchable.
        static thread_local QHash<QString, std::shared_ptr<HMLogDateFormatter>> threadDictionary;
        auto &entry = threadDictionary[QStringLiteral("HMLogFormatter_NSDateFormatter")];
        if (!entry) {
            entry = makeFormatter();
        }
        return *entry;
    }
    std::call_once(m_sharedOnce, [this] { m_sharedFormatter = makeFormatter(); });
    return *m_sharedFormatter;
}

HMSpdlogFormatter::HMSpdlogFormatter()
{
    HMLogFormatter::instance().didAddToLogger();
}

HMSpdlogFormatter::~HMSpdlogFormatter()
{
    HMLogFormatter::instance().willRemoveFromLogger();
}

namespace {
int flagForLevel(spdlog::level::level_enum level)
{
    switch (level) {
    case spdlog::level::critical:
    case spdlog::level::err:
        return 1;
    case spdlog::level::warn:
        return 2;
    case spdlog::level::info:
        return 4;
    default:
        return 8;
    }
}
} // namespace

void HMSpdlogFormatter::format(const spdlog::details::log_msg &msg, spdlog::memory_buf_t &dest)
{
    HMLogMessage message;
    message.text =
        QString::fromUtf8(msg.payload.data(), static_cast<qsizetype>(msg.payload.size()));
    message.flag = flagForLevel(msg.level);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(msg.time.time_since_epoch());
    message.timestamp = QDateTime::fromMSecsSinceEpoch(ms.count());
    message.file = QString::fromUtf8(msg.source.filename ? msg.source.filename : "");
    message.line = static_cast<unsigned>(msg.source.line);
    const QByteArray line = HMLogFormatter::instance().formatLogMessage(message).toUtf8() + '\n';
    dest.append(line.constData(), line.constData() + line.size());
}

std::unique_ptr<spdlog::formatter> HMSpdlogFormatter::clone() const
{
    return std::make_unique<HMSpdlogFormatter>();
}
