#include "HMLabApplication.h"

#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTest>

namespace {

QString lab(const char *fact)
{
    return qEnvironmentVariable(fact);
}

QString buildPath(const QString &relative)
{
    return qEnvironmentVariable("HM_BUILD_DIR") + QLatin1Char('/') + relative;
}

} // namespace

HMLabApplication::~HMLabApplication()
{
    if (isRunning() && !terminate()) {
        (void)kill();
    }
}

QString HMLabApplication::ctlPath()
{
    return buildPath(QStringLiteral("src/ctl/hollowmerectl"));
}

HMLabApplication::Result HMLabApplication::ctl(const QStringList &arguments,
                                               const QByteArray &input,
                                               const QProcessEnvironment &environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(ctlPath(), arguments);
    process.write(input);
    process.closeWriteChannel();
    Result result;
    if (!process.waitForFinished(150000)) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    result.exit = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}

QJsonObject HMLabApplication::status()
{
    const Result result = ctl({QStringLiteral("status"), QStringLiteral("--json")});
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(result.out.toUtf8(), &error);
    if (result.exit != 0 || error.error != QJsonParseError::NoError) {
        qWarning("status --json gave %d: %s %s", result.exit, qPrintable(result.out),
                 qPrintable(result.err));
    }
    return document.object();
}

bool HMLabApplication::start(QString *why)
{
    const QString config = qEnvironmentVariable("XDG_CONFIG_HOME") + "/hollowmere";
    const QString deployment = config + "/deployment.json";
    if (!QFileInfo::exists(deployment) &&
        (!QDir().mkpath(config) || !QFile::copy(lab("LAB_SERVICE_DEPLOYMENT"), deployment))) {
        *why = QStringLiteral("cannot install the lab's deployment file in ") + config;
        return false;
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOLLOWMERE_HELPER_SOCKET"), lab("LAB_HELPER_SOCKET"));
    environment.insert(QStringLiteral("HOLLOWMERE_HELPER_MANAGEMENT"),
                       lab("LAB_HELPER_MANAGEMENT"));
    environment.insert(QStringLiteral("HOLLOWMERE_HELPER_RESOURCES"), lab("LAB_HELPER_RESOURCES"));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // The application trusts the system's store only. The wrapper execs, so the process
    // started here is the application itself and its signals reach it.
    const QString ca = lab("LAB_SERVICE_CA").isEmpty()
                           ? QFileInfo(lab("LAB_SERVICE_DEPLOYMENT")).path() + "/ca.crt"
                           : lab("LAB_SERVICE_CA");
    m_process.start(HMTestEnvironment::sourceDir() + "/testing/lab/with-trusted-ca.sh",
                    {ca, qEnvironmentVariable("HOME") + "/certs", QStringLiteral("--"),
                     buildPath(QStringLiteral("src/gui/hollowmere"))});
    if (!m_process.waitForStarted()) {
        *why = QStringLiteral("the application did not start: ") + m_process.errorString();
        return false;
    }
    if (!QTest::qWaitFor(
            [this] { return !isRunning() || ctl({QStringLiteral("status")}).exit == 0; }, 20000) ||
        !isRunning()) {
        *why = QStringLiteral("the application did not answer on the session bus within 20 s");
        return false;
    }
    return true;
}

bool HMLabApplication::terminate()
{
    m_process.terminate();
    return waitForExit();
}

bool HMLabApplication::kill()
{
    m_process.kill();
    return waitForExit();
}

bool HMLabApplication::waitForExit()
{
    return m_process.state() == QProcess::NotRunning || m_process.waitForFinished(10000);
}
