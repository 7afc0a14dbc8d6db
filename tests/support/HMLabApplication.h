// The real `hollowmere` application in the VPN lab, as tests start, drive and end it: offscreen,
// on the test's private session bus and Secret Service, with the lab's helper socket,
// management directory and resources, and the lab's service authority added to a copy of
// the system's trust store that only the application sees. It is driven through
// `hollowmerectl` on the bus, as a user's scripts would.
#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

class HMLabApplication
{
public:
    struct Result
    {
        int exit = -1; // -1: crashed or did not finish within the time
        QString out;
        QString err;
    };

    ~HMLabApplication();

    static QString ctlPath();
    // hollowmerectl with these arguments and standard input, waited for.
    static Result
    ctl(const QStringList &arguments, const QByteArray &input = QByteArray(),
        const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment());
    // `status --json`; empty when the application does not answer.
    static QJsonObject status();

    // Installs the lab's deployment file (once per home), starts the application and waits
    // until it answers on the bus. False, with the reason, when it does not.
    bool start(QString *why);
    // SIGTERM or SIGKILL, then waits for the process to be gone; false when it did not end.
    bool terminate();
    bool kill();
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    qint64 pid() const { return m_process.processId(); }

private:
    bool waitForExit();

    QProcess m_process;
};
