// The preferences window: the General, Selective routing, Privacy and Account tabs. Every
// request to show a tab puts a fresh pane from HMScreenFactory in it, as the window
// commands create a fresh screen each time, so a pane never shows stale state. The tabs
// and their pages are the form HMPreferenceWindowController.ui; only the panes are made here.
#pragma once

#include <QObject>
#include <QPointer>
#include <memory>

class QTabWidget;
class QWidget;
namespace Ui {
class HMPreferenceWindowController;
}

class HMPreferenceWindowController : public QObject
{
    Q_OBJECT
public:
    enum class Tab
    {
        General = 0,
        Wisproute = 1,
        Privacy = 2,
        Account = 3,
    };

    explicit HMPreferenceWindowController(QObject *parent = nullptr);
    ~HMPreferenceWindowController() override;

    void showTab(Tab tab);
    void closeWindow();
    bool isWindowVisible() const;

    QWidget *window() const { return m_window; }
    QTabWidget *tabs() const;
    QWidget *pane(Tab tab) const;

private:
    void placePane(Tab tab);

    QPointer<QWidget> m_window;
    std::unique_ptr<Ui::HMPreferenceWindowController> m_ui;
};
