// The commands of hollowmerectl: the command line is parsed here, each command calls the
// application's control interface through HMCtlBus and prints what a person (or, with
// --json, a script) needs. run() returns the process's exit status.
//
// Messages go to standard error, results to standard output, so that "status --json" and
// "routing list" can be piped whatever happens.
#pragma once

#include "HMCtlBus.h"

#include <QStringList>
#include <QTextStream>

class HMCtlCommands
{
public:
    HMCtlCommands(QTextStream &out, QTextStream &err);

    int run(const QStringList &arguments);

    static QString usage();

private:
    int status(bool json);
    int switchTunnel(bool on, bool wait, int timeoutSeconds);
    int login(const QString &user);
    int countries();
    int routing(const QStringList &words);
    int privacy(const QStringList &words);
    int watch(bool json);

    int fail(const HMCtlBus::Failure &failure);
    int usageError(const QString &message);
    // Waits until State is one of `targets`; fails on LastError or a state in `failures`.
    int waitForState(const QList<uint> &targets, const QList<uint> &failures, int timeoutSeconds);

    QTextStream &m_out;
    QTextStream &m_err;
    HMCtlBus m_bus;
};
