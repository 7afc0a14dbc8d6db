#include "HMMainWindowController.h"

#include "HMMemoryRelease.h"
#include "HMScreenFactory.h"
#include "ui_HMMainWindowController.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QScreen>
#include <QTimer>
#include <QWidget>

namespace {

// Closing the tray-less window only minimises it: it is the application's only door. The
// popup form has no title bar, so Escape dismisses it as it dismisses a menu.
class HMMainWindow : public QWidget
{
public:
    bool minimiseOnClose = false;

    // The hidden window's native side and its backing store (a full-size image) go; the
    // next show() makes them again.
    void releaseNativeWindow() { destroy(); }

protected:
    void keyPressEvent(QKeyEvent *event) override
    {
        if (!minimiseOnClose && event->key() == Qt::Key_Escape) {
            hide();
        } else {
            QWidget::keyPressEvent(event);
        }
    }
    void closeEvent(QCloseEvent *event) override
    {
        if (minimiseOnClose) {
            event->ignore();
            showMinimized();
        } else {
            QWidget::closeEvent(event);
        }
    }
};

} // namespace

HMMainWindowController::HMMainWindowController(QObject *parent)
    : QObject(parent), m_ui(std::make_unique<Ui::HMMainWindowController>())
{
    m_window = new HMMainWindow;
    m_ui->setupUi(m_window);
    setFallbackMode(false);
    m_window->installEventFilter(this);
}

HMMainWindowController::~HMMainWindowController()
{
    delete m_window;
}

void HMMainWindowController::setFallbackMode(bool fallback)
{
    m_fallback = fallback;
    static_cast<HMMainWindow *>(m_window.data())->minimiseOnClose = fallback;
    const bool visible = m_window->isVisible();
    m_window->setWindowFlags(
        fallback ? Qt::Window : Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    if (!fallback) {
        m_ui->trayHint->hide();
    }
    if (visible) {
        m_window->show();
    }
}

void HMMainWindowController::showHint(const QString &text)
{
    m_ui->trayHint->setText(text);
    m_ui->trayHint->show();
}

void HMMainWindowController::ensureContent()
{
    if (!m_content) {
        m_content = HMScreenFactory::createMainPanel();
        m_ui->contentLayout->addWidget(m_content);
    }
}

bool HMMainWindowController::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_window && event->type() == QEvent::Hide) {
        // Later, not inside the hide: the content may be what is hiding the window.
        QTimer::singleShot(0, this, &HMMainWindowController::releaseContent);
    }
    return QObject::eventFilter(watched, event);
}

void HMMainWindowController::releaseContent()
{
    // A minimised tray-less window stays visible in Qt's sense and keeps its content.
    if (!m_content || !m_window || m_window->isVisible()) {
        return;
    }
    delete m_content;
    m_content = nullptr;
    static_cast<HMMainWindow *>(m_window.data())->releaseNativeWindow();
    HMMemoryRelease::releaseUnusedMemory();
}

void HMMainWindowController::showWindowAt(const QPoint &anchor)
{
    ensureContent();
    if (m_fallback) {
        showWindow();
        return;
    }
    const QScreen *screen = QGuiApplication::screenAt(anchor);
    if (!screen) {
        screen = QGuiApplication::primaryScreen();
    }
    const QRect area = screen ? screen->availableGeometry() : QRect(0, 0, 1024, 768);
    const QSize size = m_window->size();
    QPoint topLeft(anchor.x() - size.width() / 2, anchor.y());
    if (anchor.y() > area.center().y()) {
        topLeft.setY(anchor.y() - size.height()); // a panel at the bottom of the screen
    }
    topLeft.setX(qBound(area.left(), topLeft.x(), area.right() - size.width() + 1));
    topLeft.setY(qBound(area.top(), topLeft.y(), area.bottom() - size.height() + 1));
    m_window->move(topLeft);
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

void HMMainWindowController::showWindow()
{
    ensureContent();
    m_window->showNormal();
    m_window->raise();
    m_window->activateWindow();
}

void HMMainWindowController::closeWindow()
{
    // In the tray-less mode this minimises, like the window's own close button.
    if (m_fallback) {
        m_window->showMinimized();
    } else {
        m_window->hide();
    }
}

bool HMMainWindowController::isWindowVisible() const
{
    return m_window->isVisible() && !m_window->isMinimized();
}
