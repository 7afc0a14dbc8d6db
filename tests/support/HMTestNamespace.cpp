#include "HMTestNamespace.h"

#include "HMTestEnvironment.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

QByteArray ipOutput(const QStringList &arguments, int *exitCode = nullptr, bool quiet = false)
{
    QProcess process;
    process.start(HMTestEnvironment::findProgram(QStringLiteral("ip")), arguments);
    const bool finished = process.waitForFinished(10000);
    if (exitCode) {
        *exitCode =
            finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    if (exitCode && *exitCode != 0 && !quiet) {
        qWarning() << "ip" << arguments << "failed:" << process.readAllStandardError();
    }
    return process.readAllStandardOutput();
}

int openNamespace(const QString &name)
{
    return ::open(QFile::encodeName(QStringLiteral("/run/netns/") + name).constData(),
                  O_RDONLY | O_CLOEXEC);
}

} // namespace

namespace HMTestNamespace {

QString create(const QString &prefix, const QString &suffix, QString *error)
{
    removeStale(prefix);
    const QString name = prefix + QString::number(::getpid()) + suffix;
    int status = -1;
    ipOutput({QStringLiteral("netns"), QStringLiteral("add"), name}, &status);
    if (status != 0) {
        if (error) {
            *error = QStringLiteral("cannot create the network namespace %1").arg(name);
        }
        return QString();
    }
    ip(name,
       {QStringLiteral("link"), QStringLiteral("set"), QStringLiteral("lo"), QStringLiteral("up")});
    return name;
}

void remove(const QString &name)
{
    // Whatever still runs there (a stray OpenVPN, an up script) ends with the namespace.
    for (const QByteArray &pid :
         ipOutput({QStringLiteral("netns"), QStringLiteral("pids"), name}).split('\n')) {
        if (pid.toInt() > 1) {
            ::kill(pid.toInt(), SIGKILL);
        }
    }
    ipOutput({QStringLiteral("netns"), QStringLiteral("del"), name});
    QDir(QStringLiteral("/etc/netns/") + name).removeRecursively();
}

void removeStale(const QString &prefix)
{
    const QRegularExpression ours(
        QStringLiteral("^%1(\\d+)(-\\S*)?$").arg(QRegularExpression::escape(prefix)));
    for (const QByteArray &line :
         ipOutput({QStringLiteral("netns"), QStringLiteral("list")}).split('\n')) {
        const QString name = QString::fromUtf8(line).section(QLatin1Char(' '), 0, 0);
        const QRegularExpressionMatch match = ours.match(name);
        if (match.hasMatch() && ::kill(match.captured(1).toInt(), 0) != 0 && errno == ESRCH) {
            remove(name);
        }
    }
}

bool ip(const QString &name, const QStringList &arguments, bool quiet)
{
    int status = -1;
    ipOutput(QStringList{QStringLiteral("-n"), name} + arguments, &status, quiet);
    return status == 0;
}

int socketIn(const QString &name, int type)
{
    int result = -1;
    std::thread worker([&] {
        const int ns = openNamespace(name);
        if (ns >= 0 && ::setns(ns, CLONE_NEWNET) == 0) {
            result = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
        }
        if (ns >= 0) {
            ::close(ns);
        }
    });
    worker.join();
    return result;
}

Scope::Scope(const QString &name)
{
    m_original = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = openNamespace(name);
    m_entered = m_original >= 0 && target >= 0 && ::setns(target, CLONE_NEWNET) == 0;
    if (target >= 0) {
        ::close(target);
    }
}

Scope::~Scope()
{
    if (m_entered && ::setns(m_original, CLONE_NEWNET) != 0) {
        qFatal("could not return to the test's own network namespace");
    }
    if (m_original >= 0) {
        ::close(m_original);
    }
}

} // namespace HMTestNamespace
