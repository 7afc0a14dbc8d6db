#include "HMUtilityWindowController.h"

#include <QParallelAnimationGroup>
#include <QPropertyAnimation>
#include <QResizeEvent>
#include <QWidget>

namespace {

constexpr int kWidth = 400;
constexpr int kHeight = 520;

// Keeps the screen on show filling the window when the window is resized.
class HMUtilityWindow : public QWidget
{
public:
    std::function<void()> onResize;

protected:
    void resizeEvent(QResizeEvent *event) override
    {
        QWidget::resizeEvent(event);
        if (onResize) {
            onResize();
        }
    }
};

// Keys typed while a screen slides in belong to it: left with the screen sliding out, a
// second Return would press that screen's button again and the typing would be lost.
void focusFirstControl(QWidget *screen)
{
    if (screen->focusProxy()) { // the screen knows better, e.g. the password of a known user
        screen->setFocus(Qt::OtherFocusReason);
        return;
    }
    for (QWidget *w = screen->nextInFocusChain(); w != screen && screen->isAncestorOf(w);
         w = w->nextInFocusChain()) {
        if ((w->focusPolicy() & Qt::TabFocus) && w->isEnabled() && w->isVisibleTo(screen)) {
            w->setFocus(Qt::OtherFocusReason);
            return;
        }
    }
}

} // namespace

HMUtilityWindowController::HMUtilityWindowController(QObject *parent) : QObject(parent)
{
    auto *window = new HMUtilityWindow;
    window->onResize = [this] {
        if (m_current && !m_slide) {
            m_current->setGeometry(m_window->rect());
        }
    };
    m_window = window;
    m_window->setWindowTitle(QStringLiteral("Hollowmere"));
    m_window->setAccessibleName(QStringLiteral("Hollowmere"));
    m_window->setObjectName(QStringLiteral("utilityWindow"));
    m_window->resize(kWidth, kHeight);
}

HMUtilityWindowController::~HMUtilityWindowController()
{
    delete m_slide;
    delete m_window;
}

void HMUtilityWindowController::presentViewController(QWidget *screen, Animation animation)
{
    if (m_slide) {
        m_slide->stop();
        finishSlide();
    }
    QWidget *old = m_current;
    m_current = screen;
    screen->setParent(m_window);
    const QRect area = m_window->rect();
    if (!old || animation == Animation::None || !m_window->isVisible()) {
        delete old;
        screen->setGeometry(area);
        screen->show();
        focusFirstControl(screen);
        return;
    }
    m_leaving = old;
    screen->setGeometry(area.translated(area.width(), 0));
    screen->show();
    focusFirstControl(screen);
    m_slide = new QParallelAnimationGroup;
    auto *in = new QPropertyAnimation(screen, "pos", m_slide);
    in->setEndValue(area.topLeft());
    auto *out = new QPropertyAnimation(old, "pos", m_slide);
    out->setEndValue(area.topLeft() - QPoint(area.width(), 0));
    for (QPropertyAnimation *animationPart : {in, out}) {
        animationPart->setDuration(kSlideMs);
        animationPart->setEasingCurve(QEasingCurve::OutCubic);
    }
    connect(m_slide, &QAbstractAnimation::finished, this, &HMUtilityWindowController::finishSlide);
    m_slide->start();
}

void HMUtilityWindowController::finishSlide()
{
    if (m_slide) {
        m_slide->deleteLater();
        m_slide = nullptr;
    }
    delete m_leaving;
    if (m_current) {
        m_current->setGeometry(m_window->rect());
    }
}

void HMUtilityWindowController::showWindow()
{
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

void HMUtilityWindowController::closeWindow()
{
    m_window->hide();
}

bool HMUtilityWindowController::isWindowVisible() const
{
    return m_window->isVisible();
}
