// The utility window: launch, sign-in, create-account, verify-e-mail and diagnostics
// screens, one at a time. Presenting with the slide animation moves the new screen in from
// the right while the old one leaves to the left; the old screen is deleted once it is out
// of sight. Presenting without animation, or while the window is hidden, swaps at once.
// The window and the stage the screens slide on are the form HMUtilityWindowController.ui.
#pragma once

#include "HMScreenPresenter.h"

#include <QObject>
#include <QPointer>
#include <memory>

class QParallelAnimationGroup;
class QWidget;
namespace Ui {
class HMUtilityWindowController;
}

class HMUtilityWindowController : public QObject, public HMScreenPresenter
{
    Q_OBJECT
public:
    static constexpr int kSlideMs = 300;

    explicit HMUtilityWindowController(QObject *parent = nullptr);
    ~HMUtilityWindowController() override;

    void presentViewController(QWidget *screen, Animation animation) override;
    void showWindow() override;
    void closeWindow() override;
    bool isWindowVisible() const override;

    QWidget *window() const { return m_window; }
    // Where the screens sit and slide, inside the window's frame.
    QWidget *stage() const;
    QWidget *currentScreen() const { return m_current; }
    bool isAnimating() const { return m_slide != nullptr; }

Q_SIGNALS:
    // A slide ended (ran out or was cut short by the next screen): the current screen fills
    // the stage and the old one is gone.
    void slideFinished();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void finishSlide();

    QPointer<QWidget> m_window;
    std::unique_ptr<Ui::HMUtilityWindowController> m_ui;
    QPointer<QWidget> m_current;
    QPointer<QWidget> m_leaving;
    QParallelAnimationGroup *m_slide = nullptr;
};
