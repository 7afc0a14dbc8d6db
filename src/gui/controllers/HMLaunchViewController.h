// The first screen of a signed-out user: sign in, or create an account.
#pragma once

#include "HMScreenContext.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMLaunchViewController;
}
class HMScreenPresenter;

class HMLaunchViewController : public QWidget
{
    Q_OBJECT

public:
    HMLaunchViewController(HMScreenPresenter &presenter, const HMScreenContext &context,
                           QWidget *parent = nullptr);
    ~HMLaunchViewController() override;

    void didPressSignIn();
    void didPressCreateAccount();

private:
    HMScreenPresenter &m_presenter;
    HMScreenContext m_context;
    std::unique_ptr<Ui::HMLaunchViewController> m_ui;
};
