// Shown to a signed-in user whose e-mail address is not confirmed yet: check again,
// send the confirmation again, or sign out (the application controller then brings the
// sign-in screen). A confirmed account puts the window away.
#pragma once

#include "HMScreenContext.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMVerifyEmailViewController;
}
class HMScreenPresenter;

class HMVerifyEmailViewController : public QWidget
{
    Q_OBJECT

public:
    HMVerifyEmailViewController(HMScreenPresenter &presenter, const HMScreenContext &context,
                                QWidget *parent = nullptr);
    ~HMVerifyEmailViewController() override;

    void didPressCheckAgain();
    void didPressResend();
    void didPressSignOut();

private:
    void setBusy(bool busy);

    HMScreenPresenter &m_presenter;
    HMScreenContext m_context;
    std::unique_ptr<Ui::HMVerifyEmailViewController> m_ui;
    bool m_busy = false;
};
