// Turns SIGTERM and SIGINT into a clean quit of the Qt event loop.
//
// Signal handlers may only do async-signal-safe work, so the handler writes one byte to a
// socket pair and a QSocketNotifier on the main thread emits `quitRequested` from there.
#pragma once

#include <QObject>

class QSocketNotifier;

class HMSignalWatcher : public QObject
{
    Q_OBJECT
public:
    explicit HMSignalWatcher(QObject *parent = nullptr);
    ~HMSignalWatcher() override;

    // Installs the handlers; returns false (and changes nothing) when that fails.
    bool watchTerminationSignals();

Q_SIGNALS:
    void quitRequested(int signalNumber);

private:
    void readSignal();

    QSocketNotifier *m_notifier = nullptr;
};
