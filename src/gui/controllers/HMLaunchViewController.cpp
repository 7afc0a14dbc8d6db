#include "HMLaunchViewController.h"

#include "ui_HMLaunchViewController.h"

#include "HMCreateAccountViewController.h"
#include "HMLoginViewController.h"
#include "HMScreenPresenter.h"
#include "HMTheme.h"

HMLaunchViewController::HMLaunchViewController(HMScreenPresenter &presenter,
                                               const HMScreenContext &context, QWidget *parent)
    : QWidget(parent), m_presenter(presenter), m_context(context),
      m_ui(std::make_unique<Ui::HMLaunchViewController>())
{
    m_ui->setupUi(this);
    HMTheme::styleTitle(m_ui->titleLabel);
    HMTheme::styleSecondary(m_ui->subtitleLabel);
    QObject::connect(m_ui->signInButton, &QPushButton::clicked, this,
                     &HMLaunchViewController::didPressSignIn);
    QObject::connect(m_ui->createAccountButton, &QPushButton::clicked, this,
                     &HMLaunchViewController::didPressCreateAccount);
    setFocusProxy(m_ui->signInButton);
}

HMLaunchViewController::~HMLaunchViewController() = default;

void HMLaunchViewController::didPressSignIn()
{
    m_presenter.presentViewController(new HMLoginViewController(m_presenter, m_context),
                                      HMScreenPresenter::Animation::Slide);
}

void HMLaunchViewController::didPressCreateAccount()
{
    m_presenter.presentViewController(new HMCreateAccountViewController(m_presenter, m_context),
                                      HMScreenPresenter::Animation::Slide);
}
