#include "RefState.h"

#include "RefUploadStore.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <chrono>

namespace {

QString randomHex(int bytes)
{
    QByteArray data(bytes, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(data.data()),
                                          static_cast<qsizetype>(bytes / 4));
    return QString::fromLatin1(data.toHex());
}

QJsonArray defaultCountries()
{
    return QJsonArray{QJsonArray{QStringLiteral("US"), QStringLiteral("1")},
                      QJsonArray{QStringLiteral("GB"), QStringLiteral("2")},
                      QJsonArray{QStringLiteral("DE"), QStringLiteral("3")}};
}

QJsonArray defaultServers()
{
    return QJsonArray{QJsonObject{{QStringLiteral("host"), QStringLiteral("10.99.0.1")},
                                  {QStringLiteral("port"), 1194},
                                  {QStringLiteral("isUdp"), true}}};
}

QJsonObject defaultGroups()
{
    return QJsonObject{{QStringLiteral("US"), defaultServers()}};
}

bool matches(const QJsonObject &fault, const QString &key, const QString &value)
{
    if (!fault.contains(key)) {
        return true;
    }
    const QString pattern = fault.value(key).toString();
    if (pattern.endsWith(QLatin1Char('*'))) {
        return value.startsWith(pattern.chopped(1));
    }
    return pattern == value;
}

} // namespace

RefState::RefState(const QJsonObject &config)
{
    m_defaults = config.value(QStringLiteral("accountDefaults")).toObject();
    m_fallroot = config.value(QStringLiteral("fallroot")).toObject();
    m_vpnClientPrefix = config.value(QStringLiteral("vpnClientPrefix")).toString();
    m_uploadsDir = config.value(QStringLiteral("uploadsDir")).toString();
    if (m_uploadsDir.isEmpty()) {
        m_uploadsDir = QDir::tempPath() + QStringLiteral("/hm-refservice-uploads-") + randomHex(4);
    }
    QDir().mkpath(m_uploadsDir);
    for (const QJsonValue &fault : config.value(QStringLiteral("faults")).toArray()) {
        m_faults.append(fault);
    }
    for (const QJsonValue &account : config.value(QStringLiteral("accounts")).toArray()) {
        putAccount(account.toObject());
    }
}

QJsonObject RefState::withDefaults(QJsonObject account) const
{
    QJsonObject base{
        {QStringLiteral("password"), QString()},
        {QStringLiteral("confirmed"), true},
        {QStringLiteral("plan"), QStringLiteral("free")},
        {QStringLiteral("dataAllowed"), 500LL * 1024 * 1024},
        {QStringLiteral("dataCap"), 500LL * 1024 * 1024},
        {QStringLiteral("countries"), defaultCountries()},
        {QStringLiteral("vpnServers"), defaultServers()},
        {QStringLiteral("fastestServers"), defaultGroups()},
        {QStringLiteral("fullRemainingTime"), 0},
        {QStringLiteral("twitterPromo"), false},
        {QStringLiteral("twitterPromoEnabled"), false},
        {QStringLiteral("templateTweet"), QStringLiteral("I use Hollowmere")},
        {QStringLiteral("currentTweet"), QString()},
        {QStringLiteral("privacy"),
         QJsonObject{
             {QStringLiteral("globalSwitch"), false},
             {QStringLiteral("filters"), QJsonObject{{QStringLiteral("facebook"), false},
                                                     {QStringLiteral("twitter"), false},
                                                     {QStringLiteral("linkedin"), false}}}}},
    };
    for (auto it = m_defaults.constBegin(); it != m_defaults.constEnd(); ++it) {
        base.insert(it.key(), it.value());
    }
    for (auto it = account.constBegin(); it != account.constEnd(); ++it) {
        base.insert(it.key(), it.value());
    }
    if (base.value(QStringLiteral("vpnToken")).toString().isEmpty()) {
        base.insert(QStringLiteral("vpnToken"), randomHex(16));
    }
    return base;
}

QJsonObject RefState::putAccount(const QJsonObject &account)
{
    const QJsonObject stored = withDefaults(account);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_accounts[stored.value(QStringLiteral("username")).toString()] = stored;
    return stored;
}

std::optional<QJsonObject> RefState::updateAccount(const QString &username,
                                                   const QJsonObject &fields)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_accounts.find(username);
    if (it == m_accounts.end()) {
        return std::nullopt;
    }
    for (auto field = fields.constBegin(); field != fields.constEnd(); ++field) {
        if (field.key() != QLatin1String("username")) {
            it->second.insert(field.key(), field.value());
        }
    }
    return it->second;
}

bool RefState::removeAccount(const QString &username)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_accounts.erase(username) > 0;
}

std::optional<QJsonObject> RefState::account(const QString &username) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_accounts.find(username);
    if (it == m_accounts.end()) {
        return std::nullopt;
    }
    return it->second;
}

QJsonArray RefState::accounts() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    QJsonArray list;
    for (const auto &entry : m_accounts) {
        list.append(entry.second);
    }
    return list;
}

RefState::Auth RefState::authenticate(const QString &username, const QString &password,
                                      QJsonObject *account) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_accounts.find(username);
    if (it == m_accounts.end()) {
        return Auth::UnknownUser;
    }
    if (it->second.value(QStringLiteral("password")).toString() != password) {
        return Auth::WrongPassword;
    }
    if (account) {
        *account = it->second;
    }
    return Auth::Ok;
}

bool RefState::checkToken(const QString &username, const QString &token) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (token.isEmpty()) {
        return false;
    }
    const auto it = m_accounts.find(username);
    if (it != m_accounts.end()) {
        return it->second.value(QStringLiteral("vpnToken")).toString() == token;
    }
    // The client answers OpenVPN with the token as both user name and password: then any
    // account's current token is accepted.
    if (username == token) {
        for (const auto &entry : m_accounts) {
            if (entry.second.value(QStringLiteral("vpnToken")).toString() == token) {
                return true;
            }
        }
    }
    return false;
}

std::optional<QJsonObject> RefState::takeFault(const QString &listener, const QString &method,
                                               const QString &host, const QString &path)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (qsizetype i = 0; i < m_faults.size(); ++i) {
        QJsonObject fault = m_faults.at(i).toObject();
        if (!matches(fault, QStringLiteral("listener"), listener) ||
            !matches(fault, QStringLiteral("method"), method) ||
            !matches(fault, QStringLiteral("host"), host) ||
            !matches(fault, QStringLiteral("path"), path)) {
            continue;
        }
        if (fault.contains(QStringLiteral("times"))) {
            const int times = fault.value(QStringLiteral("times")).toInt();
            if (times <= 1) {
                m_faults.removeAt(i);
            } else {
                fault.insert(QStringLiteral("times"), times - 1);
                m_faults.replace(i, fault);
            }
        }
        return fault;
    }
    return std::nullopt;
}

void RefState::addFault(const QJsonObject &fault)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.append(fault);
}

void RefState::clearFaults()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults = QJsonArray();
}

QJsonObject RefState::fallroot() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_fallroot;
}

void RefState::setFallroot(const QJsonObject &fallroot)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fallroot = fallroot;
}

QString RefState::vpnClientPrefix() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vpnClientPrefix;
}

std::shared_ptr<RefStream> RefState::openStream(const QString &username)
{
    auto stream = std::make_shared<RefStream>();
    stream->username = username;
    std::lock_guard<std::mutex> lock(m_mutex);
    stream->id = m_nextStream++;
    m_streams[stream->id] = stream;
    return stream;
}

void RefState::closeStream(quint64 id)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_streams.erase(id);
}

int RefState::pushChunk(const std::string &chunk, const QString &username)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int queued = 0;
    for (auto &entry : m_streams) {
        if (username.isEmpty() || entry.second->username == username) {
            entry.second->chunks.push_back(chunk);
            ++queued;
        }
    }
    m_changed.notify_all();
    return queued;
}

void RefState::endStreams(bool drop)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto &entry : m_streams) {
        entry.second->ended = true;
        entry.second->dropped = drop;
    }
    m_changed.notify_all();
}

int RefState::openStreamCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_streams.size());
}

std::optional<std::string> RefState::nextChunk(const std::shared_ptr<RefStream> &stream, int ms)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::milliseconds(ms),
                       [&] { return m_stopping || stream->ended || !stream->chunks.empty(); });
    if (stream->chunks.empty()) {
        return std::nullopt;
    }
    std::string chunk = std::move(stream->chunks.front());
    stream->chunks.pop_front();
    return chunk;
}

bool RefState::streamEnded(const std::shared_ptr<RefStream> &stream) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return stream->ended || m_stopping;
}

bool RefState::streamDropped(const std::shared_ptr<RefStream> &stream) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return stream->dropped;
}

int RefState::addUpload(QJsonObject meta, const QByteArray &data, QString *error)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto kept = RefUploadStore::keep(m_uploadsDir, static_cast<int>(m_uploads.size()),
                                           std::move(meta), data, error);
    if (!kept) {
        return -1;
    }
    m_uploads.append(*kept);
    return static_cast<int>(m_uploads.size()) - 1;
}

QJsonArray RefState::uploads() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_uploads;
}

std::optional<QByteArray> RefState::uploadData(int index) const
{
    QString path;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (index < 0 || index >= m_uploads.size()) {
            return std::nullopt;
        }
        path = m_uploads.at(index).toObject().value(QStringLiteral("path")).toString();
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    return file.readAll();
}

void RefState::logRequest(const QJsonObject &entry)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.append(entry);
}

QJsonArray RefState::requests() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

void RefState::clearRequests()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests = QJsonArray();
}

bool RefState::sleepFor(int ms)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_changed.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_stopping; });
}

void RefState::stop()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
    m_changed.notify_all();
}

bool RefState::stopping() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopping;
}
