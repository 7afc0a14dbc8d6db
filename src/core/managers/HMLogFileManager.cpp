#include "HMLogFileManager.h"

#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMClock.h"
#include "HMDaemonManager.h"
#include "HMDispatch.h"
#include "HMLog.h"
#include "HMLogDeflater.h"
#include "HMLogging.h"
#include "HMPreferenceStore.h"
#include "HMRollingFileSink.h"
#include "HMZipWriter.h"

#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QPointer>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUuid>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

const QString kArchiveName = QStringLiteral("logs.zip");
const QString kUploadPath = QStringLiteral("/core/uploadLogs");

HMError fileError(const QString &what, const QString &path, const QString &reason, long code = 1)
{
    return HMError::errorWithCode(code, QStringLiteral("%1 %2: %3").arg(what, path, reason),
                                  reason);
}

// The folder is made on first use; a stale or foreign one shows as a write error later.
bool ensureDirectory(const QString &directory, HMMaybeError *error)
{
    if (QDir().mkpath(directory)) {
        // Logs and preferences are private: the folder is the user's alone.
        QFile::setPermissions(directory, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        return true;
    }
    if (error) {
        *error = fileError(QStringLiteral("Could not create the temporary folder"), directory,
                           QStringLiteral("it cannot be created here"));
    }
    return false;
}

HMMaybeError removeArchive(const QString &path)
{
    if (::unlink(QFile::encodeName(path).constData()) == 0 || errno == ENOENT) {
        // Gone already (another send, or the user) counts as deleted: the old "no such
        // file" code 4 was never an error.
        return std::nullopt;
    }
    const int code = errno;
    HMError error = fileError(QStringLiteral("Could not delete"), path,
                              QString::fromLocal8Bit(std::strerror(code)), code);
    HMLogError(QStringLiteral("Could not delete temp file: %1").arg(error.localizedDescription()));
    return error;
}

void deleteInBackground(const QString &path, const HMLogFileManager::Completion &completion)
{
    dispatch_to_bg([path, completion] {
        const HMMaybeError error = removeArchive(path);
        if (completion) {
            dispatch_to_main([error, completion] { completion(error); });
        }
    });
}

} // namespace

HMLogFileManager &HMLogFileManager::instance()
{
    static HMLogFileManager *shared = [] {
        auto *manager = new HMLogFileManager(HMDaemonManager::instance(), HMAPIClient::instance(),
                                             HMAccountManager::instance(),
                                             HMPreferenceStore::instance(), HMClock::system());
        manager->m_followsSharedLogger = true;
        return manager;
    }();
    return *shared;
}

QString HMLogFileManager::defaultTemporaryDirectory()
{
    // $XDG_RUNTIME_DIR is the user's own (0700); Qt falls back to a private folder in /tmp.
    return QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation) +
           QStringLiteral("/Hollowmere");
}

HMLogFileManager::HMLogFileManager(HMDaemonManager &daemon, HMAPIClient &api,
                                   HMAccountManager &account, HMPreferenceStore &store,
                                   HMClock &clock, Options options, QObject *parent)
    : QObject(parent), m_daemon(daemon), m_api(api), m_account(account), m_store(store),
      m_clock(clock), m_options(std::move(options))
{
    if (m_options.temporaryDirectory.isEmpty()) {
        m_options.temporaryDirectory = defaultTemporaryDirectory();
    }
    if (!m_options.openFile) {
        m_options.openFile = [](const QUrl &url) { return QDesktopServices::openUrl(url); };
    }
}

HMLogFileManager::~HMLogFileManager() = default;

void HMLogFileManager::setFileLogger(std::shared_ptr<HMRollingFileSink> logger)
{
    m_fileLogger = std::move(logger);
    m_followsSharedLogger = false;
}

std::shared_ptr<HMRollingFileSink> HMLogFileManager::fileLogger() const
{
    return m_followsSharedLogger && !m_fileLogger ? HMLogging::fileLogger() : m_fileLogger;
}

QString HMLogFileManager::archivePath() const
{
    return m_options.temporaryDirectory + QLatin1Char('/') + kArchiveName;
}

std::optional<QString> HMLogFileManager::newestAppLogPath() const
{
    const std::shared_ptr<HMRollingFileSink> logger = fileLogger();
    if (!logger) {
        return std::nullopt;
    }
    logger->flush();
    const QStringList paths = logger->sortedLogFilePaths();
    return paths.isEmpty() ? std::nullopt : std::optional<QString>(paths.first());
}

bool HMLogFileManager::openNewestAppLog(QFile &file) const
{
    const std::optional<QString> path = newestAppLogPath();
    if (!path) {
        return false;
    }
    file.setFileName(*path);
    if (!file.open(QIODevice::ReadOnly)) {
        // Rolled away or removed between listing and reading: the member is left out.
        HMLogError(QStringLiteral("Could not read %1: %2").arg(*path, file.errorString()));
        return false;
    }
    return true;
}

std::optional<HMDeflatedLog> HMLogFileManager::appLog() const
{
    QFile file;
    if (!openNewestAppLog(file)) {
        return std::nullopt;
    }
    HMLogDeflater deflater;
    char slice[16 * 1024];
    for (qint64 n = 0; (n = file.read(slice, sizeof slice)) > 0;) {
        deflater.add(QByteArrayView(slice, n));
    }
    return deflater.finish();
}

std::optional<QString> HMLogFileManager::applicationLog() const
{
    QFile file;
    if (!openNewestAppLog(file)) {
        return std::nullopt;
    }
    return QString::fromUtf8(file.readAll());
}

HMLogCollection HMLogFileManager::collectLocal(QVariantMap daemonLogs) const
{
    HMLogCollection logs;
    if (std::optional<HMDeflatedLog> log = appLog()) {
        logs.insert(QStringLiteral("app.log"), std::move(*log));
    }
    logs.insert(QStringLiteral("defaults.log"),
                HMLogDeflater::deflate(m_store.dumpText().trimmed().toUtf8()));
    // "wisprouteLog" has no ".log" and is filled from "dnsLog": both on purpose, the
    // service's readers look for exactly these names.
    const QList<QPair<QString, QString>> daemonMembers{
        {QStringLiteral("vpn.log"), QStringLiteral("vpnLog")},
        {QStringLiteral("daemon.log"), QStringLiteral("daemonLog")},
        {QStringLiteral("wisprouteLog"), QStringLiteral("dnsLog")}};
    for (const auto &member : daemonMembers) {
        if (!daemonLogs.contains(member.second)) {
            continue;
        }
        QString why;
        // The helper's logs arrive compressed and go into the archive as they are.
        if (std::optional<HMDeflatedLog> log =
                HMDeflatedLog::fromWire(daemonLogs.take(member.second), &why)) {
            logs.insert(member.first, std::move(*log));
        } else {
            HMLogError(QStringLiteral("The helper's %1 is left out: %2").arg(member.second, why));
        }
    }
    for (const HMSystemReport &report : m_options.reports) {
        if (const std::optional<QString> text =
                HMSystemReports::produce(report, m_options.reportTimeoutMs)) {
            logs.insert(report.member, HMLogDeflater::deflate(text->toUtf8()));
        }
    }
    return logs;
}

void HMLogFileManager::collectLogFilesWithCompletion(CollectCompletion completion)
{
    QPointer<HMLogFileManager> self(this);
    m_daemon.getLogs([self, completion](const QVariantMap &reply, const HMMaybeError &error) {
        if (error) {
            HMLogError(error->description());
            completion(std::nullopt, error);
        }
        if (!self) {
            return;
        }
        const HMLogFileManager *manager = self.data();
        dispatch_to_bg([manager, reply, completion]() mutable {
            const HMLogCollection logs = manager->collectLocal(std::move(reply));
            dispatch_to_main([logs, completion] { completion(logs, std::nullopt); });
        });
    });
}

QString HMLogFileManager::zipFiles(const HMLogCollection &logs, HMMaybeError *error) const
{
    if (!ensureDirectory(m_options.temporaryDirectory, error)) {
        return QString();
    }
    HMZipWriter::Members members;
    for (auto it = logs.cbegin(); it != logs.cend(); ++it) {
        members.append({it.key(), it.value()});
    }
    const QString path = archivePath();
    HMMaybeError failure = HMZipWriter::write(path, members, m_clock.now());
    if (failure) {
        if (error) {
            *error = failure;
        }
        return QString();
    }
    return path;
}

QString HMLogFileManager::writeLogsToTempFile(const HMLogCollection &logs,
                                              HMMaybeError *error) const
{
    const QString path =
        m_options.temporaryDirectory +
        QStringLiteral("/hmwisp_%1.txt").arg(QUuid::createUuid().toString(QUuid::WithoutBraces));
    if (logs.isEmpty()) {
        return path;
    }
    if (!ensureDirectory(m_options.temporaryDirectory, error)) {
        return QString();
    }
    const QByteArray separator(61, '-');
    QSaveFile file(path);
    QString reason;
    if (file.open(QIODevice::WriteOnly)) {
        for (auto it = logs.cbegin(); it != logs.cend(); ++it) {
            file.write(separator + '\n' + it.key().toUtf8() + '\n' + separator + "\n\n");
            QString why;
            if (!it.value().inflate(
                    [&file](QByteArrayView slice) {
                        return file.write(slice.data(), slice.size()) == slice.size();
                    },
                    &why)) {
                // Nothing half-written is kept: the saved file is discarded below.
                if (file.error() == QFileDevice::NoError) {
                    reason = QStringLiteral("%1: %2").arg(it.key(), why);
                }
                file.cancelWriting();
                break;
            }
            file.write("\n\n");
        }
    }
    if (!file.commit()) {
        if (error) {
            *error = fileError(QStringLiteral("Could not write"), path,
                               reason.isEmpty() ? file.errorString() : reason);
        }
        return QString();
    }
    return path;
}

void HMLogFileManager::showLogsWithCompletion(Completion completion)
{
    QPointer<HMLogFileManager> self(this);
    const auto finish = [completion](const HMMaybeError &error) {
        if (completion) {
            completion(error);
        }
    };
    collectLogFilesWithCompletion(
        [self, finish](const std::optional<HMLogCollection> &logs, const HMMaybeError &error) {
            if (error) {
                HMLogError(error->description());
                finish(error);
                return;
            }
            if (!self) {
                return;
            }
            const HMLogFileManager *manager = self.data();
            dispatch_to_bg([self, manager, logs, finish] {
                HMMaybeError writeError;
                const QString path = manager->writeLogsToTempFile(*logs, &writeError);
                dispatch_to_main([self, path, writeError, finish] {
                    HMMaybeError outcome = writeError;
                    if (outcome) {
                        HMLogError(outcome->description());
                    } else if (self && !self->m_options.openFile(QUrl::fromLocalFile(path))) {
                        outcome = HMError::errorWithDescription(
                            QStringLiteral("No application could open the logs (%1).").arg(path));
                    }
                    finish(outcome);
                });
            });
        });
}

void HMLogFileManager::sendLogsWithFeedback(const QString &feedback, Completion completion)
{
    QPointer<HMLogFileManager> self(this);
    collectLogFilesWithCompletion([self, feedback,
                                   completion](const std::optional<HMLogCollection> &logs,
                                               const HMMaybeError &error) {
        if (error) {
            HMLogError(error->description());
            if (completion) {
                completion(error);
            }
            return;
        }
        if (!self) {
            return;
        }
        const HMLogFileManager *manager = self.data();
        dispatch_to_bg([self, manager, logs, feedback, completion] {
            HMMaybeError failure;
            const QString path = manager->zipFiles(*logs, &failure);
            QByteArray archive;
            if (!failure) {
                QFile file(path);
                if (file.open(QIODevice::ReadOnly)) {
                    archive = file.readAll();
                } else {
                    failure = fileError(QStringLiteral("Could not read"), path, file.errorString());
                }
            }
            dispatch_to_main([self, archive, path, failure, feedback, completion] {
                if (failure) {
                    HMLogError(QStringLiteral("Could not upload logs: %1")
                                   .arg(failure->localizedDescription()));
                    if (completion) {
                        completion(failure);
                    }
                    return;
                }
                if (self) {
                    self->upload(archive, path, feedback, completion);
                }
            });
        });
    });
}

void HMLogFileManager::upload(const QByteArray &archive, const QString &path,
                              const QString &feedback, const Completion &completion)
{
    const QMetaObject::Connection progress =
        connect(&m_api, &HMAPIClient::uploadProgress, this,
                [this](const QString &requestPath, qint64 sent, qint64 total) {
                    if (requestPath.endsWith(kUploadPath)) {
                        Q_EMIT uploadProgress(sent, total);
                    }
                });
    m_api.uploadLogData(
        archive, feedback, m_account.username(),
        [progress, path, completion](const QVariantMap &, const HMMaybeError &error) {
            QObject::disconnect(progress);
            if (error) {
                // The archive stays for a look; the next send replaces it.
                HMLogError(
                    QStringLiteral("Could not upload logs: %1").arg(error->localizedDescription()));
                if (completion) {
                    completion(error);
                }
                return;
            }
            deleteInBackground(path, completion);
        });
}
