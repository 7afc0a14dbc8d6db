#include "HMDiagnosticsViewController.h"

#include "HMAPIClient.h"
#include "HMLogFileManager.h"
#include "HMScreenPresenter.h"
#include "ui_HMDiagnosticsViewController.h"

#include <QAccessible>
#include <QPointer>

HMDiagnosticsViewController::HMDiagnosticsViewController(HMScreenPresenter &presenter,
                                                         HMLogFileManager &logs, HMAPIClient &api,
                                                         QWidget *parent)
    : QWidget(parent), m_presenter(presenter), m_logs(logs), m_api(api),
      m_ui(std::make_unique<Ui::HMDiagnosticsViewController>())
{
    m_ui->setupUi(this);
    connect(m_ui->sendButton, &QPushButton::clicked, this,
            &HMDiagnosticsViewController::didPressSend);
    connect(m_ui->viewLogsButton, &QPushButton::clicked, this,
            &HMDiagnosticsViewController::didPressViewLogs);
    connect(m_ui->helpButton, &QPushButton::clicked, this,
            &HMDiagnosticsViewController::didPressHelp);
    connect(&m_logs, &HMLogFileManager::uploadProgress, this,
            &HMDiagnosticsViewController::showUploadProgress);
}

HMDiagnosticsViewController::~HMDiagnosticsViewController() = default;

void HMDiagnosticsViewController::didPressSend()
{
    startActivity();
    // The presenter may delete this screen before the upload ends; the window is still
    // put away then.
    QPointer<HMDiagnosticsViewController> self(this);
    HMScreenPresenter *presenter = &m_presenter;
    m_logs.sendLogsWithFeedback(m_ui->commentEdit->toPlainText(),
                                [self, presenter](const HMMaybeError &error) {
                                    if (self) {
                                        self->finishActivity(error);
                                    }
                                    presenter->closeWindow();
                                });
}

void HMDiagnosticsViewController::didPressViewLogs()
{
    startActivity();
    QPointer<HMDiagnosticsViewController> self(this);
    m_logs.showLogsWithCompletion([self](const HMMaybeError &error) {
        if (self) {
            self->finishActivity(error);
        }
    });
}

void HMDiagnosticsViewController::didPressHelp()
{
    m_api.openHelpURL();
    m_presenter.closeWindow();
}

void HMDiagnosticsViewController::disableEverything()
{
    m_ui->sendButton->setEnabled(false);
    m_ui->viewLogsButton->setEnabled(false);
    m_ui->helpButton->setEnabled(false);
}

void HMDiagnosticsViewController::enableEverything()
{
    m_ui->sendButton->setEnabled(true);
    m_ui->viewLogsButton->setEnabled(true);
    m_ui->helpButton->setEnabled(true);
}

void HMDiagnosticsViewController::startActivity()
{
    disableEverything();
    m_ui->activityBar->setRange(0, 0);
    m_ui->activityBar->setTextVisible(false);
    m_ui->activityBar->setVisible(true);
}

void HMDiagnosticsViewController::finishActivity(const HMMaybeError &error)
{
    m_ui->activityBar->setVisible(false);
    enableEverything();
    if (error) {
        m_ui->errorLabel->setText(error->displayText());
        QAccessibleEvent event(m_ui->errorLabel, QAccessible::NameChanged);
        QAccessible::updateAccessibility(&event);
    }
}

void HMDiagnosticsViewController::showUploadProgress(qint64 sent, qint64 total)
{
    if (total <= 0 || !m_ui->activityBar->isVisible()) {
        return;
    }
    // QProgressBar counts in int; per mille keeps any archive size in range.
    m_ui->activityBar->setRange(0, 1000);
    m_ui->activityBar->setValue(static_cast<int>(sent * 1000 / total));
    m_ui->activityBar->setFormat(tr("Uploading… %p%"));
    m_ui->activityBar->setTextVisible(true);
}
