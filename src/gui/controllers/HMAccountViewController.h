// The Account preferences: who is signed in, the plan, the data left and the plan's
// remaining time (shown as the service sends it), the account page on the web (opened
// with a one-time web token, so the user arrives signed in) and signing out.
#pragma once

#include "HMScreenContext.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMAccountViewController;
}

class HMAccountViewController : public QWidget
{
    Q_OBJECT

public:
    explicit HMAccountViewController(const HMScreenContext &context, QWidget *parent = nullptr);
    ~HMAccountViewController() override;

    void reload();
    void didPressManageAccount();
    void didPressSignOut();

protected:
    void showEvent(QShowEvent *event) override;

private:
    HMScreenContext m_context;
    std::unique_ptr<Ui::HMAccountViewController> m_ui;
};
