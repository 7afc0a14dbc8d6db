// The sign-in screen.
//
// Sign In is enabled only for a valid e-mail address and a password of at least 6
// characters (creating an account needs 8: deliberate). A refusal shows the service's own
// text; while the request is out the button shows progress and cannot be pressed again.
// A successful sign-in posts "HMDidLogInNotification" and moves on to e-mail
// verification when the account still needs it, else puts the window away.
#pragma once

#include "HMScreenContext.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMLoginViewController;
}
class HMScreenPresenter;

class HMLoginViewController : public QWidget
{
    Q_OBJECT

public:
    HMLoginViewController(HMScreenPresenter &presenter, const HMScreenContext &context,
                          QWidget *parent = nullptr);
    ~HMLoginViewController() override;

    bool canSignIn() const;
    void didPressSignIn();
    void didPressCreateAccount();

    // After any successful sign-in (this screen or account creation): announce it, then
    // verification or nothing more.
    static void continueAfterSignIn(HMScreenPresenter &presenter, const HMScreenContext &context);

private:
    QString email() const;
    void updateSignInButton();

    HMScreenPresenter &m_presenter;
    HMScreenContext m_context;
    std::unique_ptr<Ui::HMLoginViewController> m_ui;
    bool m_busy = false;
};
