#include "HMDaemonInstaller.h"

#include "HMBundleInfo.h"
#include "HMDaemonManager.h"
#include "HMLog.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <algorithm>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

const QString HMDaemonInstaller::kLabel = QStringLiteral("com.hollowmere.mac.hmwispd");
const QString HMDaemonInstaller::kRetryMessage =
    QStringLiteral("Hollowmere cannot proceed without a helper tool being installed");
const QString HMDaemonInstaller::kRetryInformative =
    QStringLiteral("Please click \"Go Back\" to show the helper install dialog again or \"Quit\" "
                   "to quit Hollowmere.");

// Defined in the application's executable from the helper built beside it; tests that
// link the core library without it get an empty pin and inject their own.
extern const char *const hm_pinned_helper_sha256 __attribute__((weak));

namespace {

// The helper records its build version behind this marker (src/helper/main.cpp).
const QByteArray kVersionMarker = QByteArrayLiteral("\nCFBundleVersion=");
constexpr qint64 kMaxHelperSize = 64 * 1024 * 1024;

bool isUserInGroup(const QString &groupName)
{
    const uid_t uid = ::getuid();
    if (uid == 0) {
        return true; // root talks to the helper without the group
    }
    const struct group *gr = ::getgrnam(groupName.toLocal8Bit().constData());
    const struct passwd *pw = ::getpwuid(uid);
    if (!gr || !pw) {
        return false;
    }
    const gid_t wanted = gr->gr_gid;
    int count = 64;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (::getgrouplist(pw->pw_name, pw->pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<size_t>(count));
        if (::getgrouplist(pw->pw_name, pw->pw_gid, groups.data(), &count) < 0) {
            return false;
        }
    }
    groups.resize(static_cast<size_t>(count));
    return std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

HMDaemonInstaller::Result runToEnd(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(program, arguments);
    // pkexec waits for the user: no time limit.
    if (!process.waitForStarted() || !process.waitForFinished(-1)) {
        return {-1, process.errorString()};
    }
    if (process.exitStatus() != QProcess::NormalExit) {
        return {-1, QStringLiteral("%1 crashed").arg(program)};
    }
    return {process.exitCode(), QString::fromLocal8Bit(process.readAllStandardError()).trimmed()};
}

} // namespace

HMDaemonInstaller::Environment HMDaemonInstaller::Environment::production()
{
    Environment env;
    env.shippedVersion = info_plist_var(QStringLiteral("CFBundleVersion")).toString();
    env.pinnedSha256 = &hm_pinned_helper_sha256 && hm_pinned_helper_sha256
                           ? QString::fromLatin1(hm_pinned_helper_sha256)
                           : QString();
    env.group = QStringLiteral("hollowmere");
    env.installScript = QStringLiteral(HM_INSTALLED_PROGRAM_DIR "/hmwispd-install");
    env.pkexecPath = QStandardPaths::findExecutable(QStringLiteral("pkexec"));
    env.runner = runToEnd;
    env.userInGroup = isUserInGroup;
    return env;
}

HMDaemonInstaller::HMDaemonInstaller(HMDaemonManager &daemon, Environment environment)
    : m_daemon(daemon), m_env(std::move(environment))
{
    if (!m_env.runner) {
        m_env.runner = runToEnd;
    }
    if (!m_env.userInGroup) {
        m_env.userInGroup = isUserInGroup;
    }
}

QString HMDaemonInstaller::getInstalledDaemonVersion(const QString &programPath)
{
    QFile file(programPath);
    if (file.size() > kMaxHelperSize || !file.open(QIODevice::ReadOnly)) {
        return QString();
    }
    const QByteArray content = file.readAll();
    const qsizetype at = content.indexOf(kVersionMarker);
    if (at < 0) {
        return QString();
    }
    const qsizetype start = at + kVersionMarker.size();
    const qsizetype end = content.indexOf('\n', start);
    if (end < 0 || end - start > 64) {
        return QString();
    }
    return QString::fromLatin1(content.mid(start, end - start));
}

bool HMDaemonInstaller::shouldReinstallDaemon(const QString &label) const
{
    auto reinstall = [this](const QString &reason) {
        m_lastReason = reason;
        return true;
    };
    const QString path = m_daemon.getInstalledDaemonPath(label);
    if (path.isEmpty()) {
        return reinstall(QStringLiteral("no service unit names the helper %1").arg(label));
    }
    const QString installed = getInstalledDaemonVersion(path);
    if (m_env.shippedVersion.isEmpty() || installed != m_env.shippedVersion) {
        return reinstall(QStringLiteral("the helper at %1 has version \"%2\", this application "
                                        "ships \"%3\"")
                             .arg(path, installed, m_env.shippedVersion));
    }
    struct stat st
    {
    };
    if (::stat(QFile::encodeName(path).constData(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return reinstall(QStringLiteral("the helper at %1 does not exist").arg(path));
    }
    if (st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return reinstall(QStringLiteral("the helper at %1 is not root's alone (owner %2, mode %3)")
                             .arg(path)
                             .arg(st.st_uid)
                             .arg(st.st_mode & 07777, 4, 8, QLatin1Char('0')));
    }
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (m_env.pinnedSha256.isEmpty() || !file.open(QIODevice::ReadOnly) || !hash.addData(&file)) {
        return reinstall(QStringLiteral("the helper at %1 cannot be checked").arg(path));
    }
    if (QString::fromLatin1(hash.result().toHex()) != m_env.pinnedSha256.toLower()) {
        return reinstall(
            QStringLiteral("the helper at %1 is not the one this application was built with")
                .arg(path));
    }
    if (!m_env.userInGroup(m_env.group)) {
        return reinstall(QStringLiteral("this user is not in the group %1").arg(m_env.group));
    }
    m_lastReason.clear();
    return false;
}

HMMaybeError HMDaemonInstaller::blessHelperWithLabel(const QString &)
{
    if (m_env.pkexecPath.isEmpty()) {
        return HMError::errorWithDescription(
            QStringLiteral("Could not get the authorization to install helper: pkexec is not "
                           "installed"));
    }
    const Result result = m_env.runner(m_env.pkexecPath, {m_env.installScript});
    if (result.exitCode == 0) {
        return std::nullopt;
    }
    if (result.exitCode == kPkexecDismissed) {
        return HMError(QStringLiteral("hmwisp"), kCancelledCode,
                       QStringLiteral("The authorization to install the helper was cancelled"));
    }
    if (result.exitCode < 0) {
        return HMError::errorWithDescription(
            QStringLiteral("Could not get the authorization to install helper: %1")
                .arg(result.errorOutput));
    }
    return HMError::errorWithDescription(
        QStringLiteral("Installing the helper failed (%1): %2")
            .arg(result.exitCode)
            .arg(result.errorOutput.isEmpty() ? QStringLiteral("no message") : result.errorOutput));
}

HMMaybeError HMDaemonInstaller::initializeDaemons()
{
    m_daemon.createCommandQueue();
    if (!shouldReinstallDaemon(kLabel)) {
        return std::nullopt;
    }
    HMLogError(QStringLiteral("Repairing the helper: %1").arg(m_lastReason));
    m_daemon.removeOldDaemonIfPresent(kLabel);
    HMMaybeError error = blessHelperWithLabel(kLabel);
    if (error && error->code() == kCancelledCode && m_env.retryDialog && m_env.retryDialog()) {
        error = blessHelperWithLabel(kLabel);
    }
    if (!error && shouldReinstallDaemon(kLabel)) {
        error = HMError::errorWithDescription(
            QStringLiteral("The helper is still not usable after the repair: %1. Reinstall the "
                           "hollowmere package.")
                .arg(m_lastReason));
    }
    return error;
}
