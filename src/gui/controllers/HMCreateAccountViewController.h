// The create-account form.
//
// Fields are judged locally before anything is sent (HMAccountFormRules): Create Account
// runs the checks in form order and stops at the first failure, ringing that field,
// showing its message and redrawing the field the established pairing names. Leaving a
// field runs its own check only; an empty field is not reported until Create Account.
// The password's strength and tip follow every keystroke; names get their first letters
// capitalised when the user leaves them. Success signs in, posts "HMDidLogInNotification"
// and moves on to e-mail verification.
#pragma once

#include "HMAccountFormRules.h"
#include "HMScreenContext.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMCreateAccountViewController;
}
class HMScreenPresenter;
class HMTextField;

class HMCreateAccountViewController : public QWidget
{
    Q_OBJECT

public:
    HMCreateAccountViewController(HMScreenPresenter &presenter, const HMScreenContext &context,
                                  QWidget *parent = nullptr);
    ~HMCreateAccountViewController() override;

    HMTextField *field(HMAccountFormRules::Field which) const;
    HMAccountFormRules::Form form() const;

    bool isCreateAccountFormValid();
    void fieldDidEndEditing(QWidget *field);
    void didPressNext();
    void didPressBack();

Q_SIGNALS:
    // The form asked this field to redraw after a failed check.
    void fieldRedrawn(QWidget *field);

private:
    void updatePasswordCoaching();

    HMScreenPresenter &m_presenter;
    HMScreenContext m_context;
    std::unique_ptr<Ui::HMCreateAccountViewController> m_ui;
    bool m_busy = false;
};
