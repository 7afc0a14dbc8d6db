#include "HMUtilityWindowController.h"

#include "ui_HMUtilityWindowController.h"

#include <QEvent>
#include <QParallelAnimationGroup>
#include <QPropertyAnimation>
#include <QWidget>

namespace {

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

HMUtilityWindowController::HMUtilityWindowController(QObject *parent)
    : QObject(parent), m_ui(std::make_unique<Ui::HMUtilityWindowController>())
{
    m_window = new QWidget;
    m_ui->setupUi(m_window);
    // Sized now, so that a screen presented before the window first shows already fits.
    m_window->layout()->activate();
    // The stage has no layout: a sliding screen must be free to sit outside it. The filter
    // keeps the screen on show filling it when the window is resized.
    m_ui->screenStage->installEventFilter(this);
}

HMUtilityWindowController::~HMUtilityWindowController()
{
    delete m_slide;
    delete m_window;
}

bool HMUtilityWindowController::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::Resize && m_current && !m_slide) {
        m_current->setGeometry(m_ui->screenStage->rect());
    }
    return QObject::eventFilter(watched, event);
}

QWidget *HMUtilityWindowController::stage() const
{
    return m_ui->screenStage;
}

void HMUtilityWindowController::presentViewController(QWidget *screen, Animation animation)
{
    if (m_slide) {
        m_slide->stop();
        finishSlide();
    }
    QWidget *old = m_current;
    m_current = screen;
    screen->setParent(m_ui->screenStage);
    const QRect area = m_ui->screenStage->rect();
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
        m_current->setGeometry(m_ui->screenStage->rect());
    }
    Q_EMIT slideFinished();
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
