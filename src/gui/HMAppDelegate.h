// The application controller: brings the client up in a fixed order and down cleanly.
//
// Start-up runs the system-log banner, the log set-up, the preference migration and the
// tray item; steps that have no Linux counterpart (update framework, crash reporter, move
// to the Applications folder) are skipped and the order of the rest is kept. SIGTERM and
// SIGINT end in the same clean quit as the tray's Quit entry.
#pragma once

#include <QObject>

class HMMenuBarItemController;
class HMSignalWatcher;
class HMPreferenceStore;

class HMAppDelegate : public QObject
{
    Q_OBJECT
public:
    explicit HMAppDelegate(HMPreferenceStore &store, QObject *parent = nullptr);
    ~HMAppDelegate() override;

    void applicationDidFinishLaunching();
    void initializeLogging();
    void initializeUI();
    void quitHandler();
    void startHelperClient();

    HMMenuBarItemController *menuBarItemController() const { return m_menuBarItem; }

private:
    HMPreferenceStore &m_store;
    HMMenuBarItemController *m_menuBarItem = nullptr;
    HMSignalWatcher *m_signalWatcher = nullptr;
};
