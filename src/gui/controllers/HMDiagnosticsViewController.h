// The diagnostics screen of the utility window: the user's comment, send, view logs,
// help centre, an error line and an activity bar that shows the upload's progress.
//
// While a send or a view runs, the three buttons are off and the bar moves. A send puts
// the utility window away when it completes, even with an error, so the error line is
// seen only for an instant: that is the product's behaviour and is kept. After a helper
// error the log manager completes twice; each completion is handled alike. Collaborators:
// the log manager, the API client (help page) and the presenter that hosts the screen.
#pragma once

#include "HMError.h"

#include <QWidget>
#include <memory>

namespace Ui {
class HMDiagnosticsViewController;
}
class HMAPIClient;
class HMLogFileManager;
class HMScreenPresenter;

class HMDiagnosticsViewController : public QWidget
{
    Q_OBJECT

public:
    HMDiagnosticsViewController(HMScreenPresenter &presenter, HMLogFileManager &logs,
                                HMAPIClient &api, QWidget *parent = nullptr);
    ~HMDiagnosticsViewController() override;

    void didPressSend();
    void didPressViewLogs();
    void didPressHelp();
    void disableEverything();
    void enableEverything();

private:
    void startActivity();
    void finishActivity(const HMMaybeError &error);
    void showUploadProgress(qint64 sent, qint64 total);

    HMScreenPresenter &m_presenter;
    HMLogFileManager &m_logs;
    HMAPIClient &m_api;
    std::unique_ptr<Ui::HMDiagnosticsViewController> m_ui;
};
