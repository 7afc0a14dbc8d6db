// Everything the reference service knows: accounts, scripted faults, the fallback file,
// open event streams, received log uploads and a log of the requests it served.
//
// Shared by every listener thread and the control API; every member is guarded by one
// mutex. Accounts are kept as JSON objects in the shape the control API accepts (see
// README.md), so a test can set any field, including ones with the wrong JSON type.
#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

struct RefStream
{
    quint64 id = 0;
    QString username;
    std::deque<std::string> chunks;
    bool ended = false;
    bool dropped = false; // ended by hanging up, without the closing chunk
};

class RefState
{
public:
    enum class Auth
    {
        Ok,
        UnknownUser,
        WrongPassword,
    };

    explicit RefState(const QJsonObject &config);

    // Accounts. putAccount fills the fields a script left out and returns the stored object.
    QJsonObject putAccount(const QJsonObject &account);
    std::optional<QJsonObject> updateAccount(const QString &username, const QJsonObject &fields);
    bool removeAccount(const QString &username);
    std::optional<QJsonObject> account(const QString &username) const;
    QJsonArray accounts() const;
    Auth authenticate(const QString &username, const QString &password,
                      QJsonObject *account = nullptr) const;
    bool checkToken(const QString &username, const QString &token) const;

    // The first scripted fault matching the request, counting down its "times".
    std::optional<QJsonObject> takeFault(const QString &listener, const QString &method,
                                         const QString &host, const QString &path);
    void addFault(const QJsonObject &fault);
    void clearFaults();

    QJsonObject fallroot() const;
    void setFallroot(const QJsonObject &fallroot);
    QString vpnClientPrefix() const;

    // Event streams of "/dashboard/blocks".
    std::shared_ptr<RefStream> openStream(const QString &username);
    void closeStream(quint64 id);
    // Queues one chunk on every open stream (of `username` when given).
    int pushChunk(const std::string &chunk, const QString &username);
    void endStreams(bool drop = false);
    int openStreamCount() const;
    // Waits until the stream has a chunk, has ended, the service stops or `ms` pass; hands
    // back the next chunk if there is one.
    std::optional<std::string> nextChunk(const std::shared_ptr<RefStream> &stream, int ms);
    bool streamEnded(const std::shared_ptr<RefStream> &stream) const;
    bool streamDropped(const std::shared_ptr<RefStream> &stream) const;

    // Log uploads, kept on disk under the uploads folder (RefUploadStore) and listed in
    // memory. The new index, or -1 with `error` when the upload could not be kept.
    int addUpload(QJsonObject meta, const QByteArray &data, QString *error);
    QJsonArray uploads() const;
    std::optional<QByteArray> uploadData(int index) const;

    void logRequest(const QJsonObject &entry);
    QJsonArray requests() const;
    void clearRequests();

    // Sleeps up to `ms`; false when the service is stopping.
    bool sleepFor(int ms);
    void stop();
    bool stopping() const;

private:
    QJsonObject withDefaults(QJsonObject account) const;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stopping = false;
    std::map<QString, QJsonObject> m_accounts;
    QJsonArray m_faults;
    QJsonObject m_fallroot;
    QJsonObject m_defaults;
    QString m_vpnClientPrefix;
    std::map<quint64, std::shared_ptr<RefStream>> m_streams;
    quint64 m_nextStream = 1;
    QString m_uploadsDir;
    QJsonArray m_uploads;
    QJsonArray m_requests;
};
