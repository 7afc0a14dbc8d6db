// Diagnostics: gathers the application's log, the helper's logs, a dump of the
// preferences and four network reports, and either opens them as one text file for the
// user or zips them into "logs.zip" and uploads the archive with the user's comment.
//
// Collaborators: the helper client (getLogs), the preference store (its own text dump
// stands in for the defaults tool), the file logger of the application log, the account
// manager (the signed-in user name), the API client (the upload and its progress), the
// system reports (HMSystemReports) and the zip writer. Files go to the user's private
// temporary folder ($XDG_RUNTIME_DIR/Hollowmere), never to the shared /tmp where another
// user could plant or read them.
//
// Threads: helper and API replies arrive on the main thread; reading files, running the
// report commands and writing the archive happen on the background pool; completions run
// on the main thread, except the upload-failure completion, which runs where the API
// client delivered its reply (also the main thread here). Deliberately odd and kept:
// after a helper error every operation calls its completion twice, first with the error,
// then goes on with what it could collect. Two overlapping sends write the same archive.
// Memory: every member is compressed as it is collected (the helper sends its logs already
// deflated, the application log is read in slices, the small members are deflated at once),
// so the collection holds about the archive's size, never the raw logs; the archive stores
// the members' bytes as they are, and the text file inflates them in slices.
// One process-wide instance (instance()), which lives for the whole process; tests build
// their own with Options and let the background pool finish before destroying it.
#pragma once

#include "HMDeflatedLog.h"
#include "HMError.h"
#include "HMSystemReports.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

class HMAccountManager;
class HMAPIClient;
class HMClock;
class HMDaemonManager;
class HMPreferenceStore;
class HMRollingFileSink;
class QFile;

// Member name to its compressed content; absent sources are absent keys.
using HMLogCollection = QMap<QString, HMDeflatedLog>;

// What tests and the shared instance choose: where files go, which reports run and how
// long each may take, and how the text file is opened.
struct HMLogFileOptions
{
    QString temporaryDirectory; // empty: the user's private temporary folder
    QList<HMSystemReport> reports = HMSystemReports::linuxReports();
    int reportTimeoutMs = HMSystemReports::kDefaultTimeoutMs;
    // Opens the text file in the desktop's default application.
    std::function<bool(const QUrl &)> openFile;
};

class HMLogFileManager : public QObject
{
    Q_OBJECT

public:
    using CollectCompletion =
        std::function<void(const std::optional<HMLogCollection> &logs, const HMMaybeError &error)>;
    using Completion = std::function<void(const HMMaybeError &error)>;

    using Options = HMLogFileOptions;

    static HMLogFileManager &instance();
    static QString defaultTemporaryDirectory();

    HMLogFileManager(HMDaemonManager &daemon, HMAPIClient &api, HMAccountManager &account,
                     HMPreferenceStore &store, HMClock &clock, Options options = Options(),
                     QObject *parent = nullptr);
    ~HMLogFileManager() override;

    // Set at start-up once logging runs; until then, and when null, there is no "app.log".
    void setFileLogger(std::shared_ptr<HMRollingFileSink> logger);
    std::shared_ptr<HMRollingFileSink> fileLogger() const;

    QString temporaryDirectory() const { return m_options.temporaryDirectory; }
    QString archivePath() const; // "<temporary folder>/logs.zip"

    void collectLogFilesWithCompletion(CollectCompletion completion);
    // The archive's path; an empty path and `error` when it could not be written whole.
    QString zipFiles(const HMLogCollection &logs, HMMaybeError *error = nullptr) const;
    // The text file's path (a file never created for an empty collection); empty with
    // `error` when it could not be written or a member does not inflate to what it holds.
    QString writeLogsToTempFile(const HMLogCollection &logs, HMMaybeError *error = nullptr) const;
    void showLogsWithCompletion(Completion completion);
    void sendLogsWithFeedback(const QString &feedback, Completion completion);
    // The newest application log as UTF-8 text; nullopt when there is none.
    std::optional<QString> applicationLog() const;

Q_SIGNALS:
    // Bytes of the upload sent so far, while a send's archive goes out.
    void uploadProgress(qint64 sent, qint64 total);

private:
    std::optional<QString> newestAppLogPath() const;
    bool openNewestAppLog(QFile &file) const;
    std::optional<HMDeflatedLog> appLog() const;
    HMLogCollection collectLocal(QVariantMap daemonLogs) const;
    void upload(const QByteArray &archive, const QString &path, const QString &feedback,
                const Completion &completion);

    HMDaemonManager &m_daemon;
    HMAPIClient &m_api;
    HMAccountManager &m_account;
    HMPreferenceStore &m_store;
    HMClock &m_clock;
    Options m_options;
    std::shared_ptr<HMRollingFileSink> m_fileLogger;
    bool m_followsSharedLogger = false;
};
