// The main panel's window: a compact frameless popup hung under the tray icon, or, on a
// desktop without a tray, an ordinary window that closing only minimises (the application
// has no other way back). Its content comes from HMScreenFactory::createMainPanel() each
// time it is shown after having been hidden: a hidden popup drops its widget tree (and the
// memory that tree's fonts and pixmaps held), since rebuilding it takes a few milliseconds
// and the tray application idles far longer than it shows the panel. A one-time hint line
// above it tells a tray-less user how to get a tray icon. The frame (hint line, content
// host) is the form HMMainWindowController.ui; Escape dismisses the popup form.
#pragma once

#include <QObject>
#include <QPoint>
#include <QPointer>
#include <memory>

class QWidget;
namespace Ui {
class HMMainWindowController;
}

class HMMainWindowController : public QObject
{
    Q_OBJECT
public:
    explicit HMMainWindowController(QObject *parent = nullptr);
    ~HMMainWindowController() override;

    // Shows the panel with its top edge's middle at `anchor` (above it when the anchor is
    // in the lower half of the screen), kept inside the screen.
    void showWindowAt(const QPoint &anchor);
    // The ordinary window of the tray-less desktop, where the window manager places it.
    void showWindow();
    void closeWindow();
    bool isWindowVisible() const;

    void setFallbackMode(bool fallback);
    bool isFallbackMode() const { return m_fallback; }
    void showHint(const QString &text);

    QWidget *window() const { return m_window; }
    QWidget *content() const { return m_content; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void ensureContent();
    void releaseContent();

    QPointer<QWidget> m_window;
    std::unique_ptr<Ui::HMMainWindowController> m_ui;
    QWidget *m_content = nullptr;
    bool m_fallback = false;
};
