// The "Selective routing" preferences pane: the mode choice and the inclusion and exclusion
// lists of HMWisprouteManager, edited by the rules of HMDomainListEditor (all refusals are
// silent). The pane holds no domain data of its own; its tables show the manager's lists.
// Without the paid plan, or when the helper reported that the DNS proxy cannot run here,
// the editing controls give way to a notice with its information button.
//
// Collaborators come in through Context so that tests drive the pane without the VPN
// manager, the account or a browser.
#pragma once

#include "HMDomainListEditor.h"

#include <QWidget>
#include <functional>
#include <memory>

class QTableWidget;
class QTableWidgetItem;
class QLineEdit;
class HMWisprouteManager;

namespace Ui {
class HMWisprouteViewController;
}

class HMWisprouteViewController : public QWidget
{
    Q_OBJECT

public:
    struct Context
    {
        std::function<bool()> isConnected;
        std::function<bool()> isFullVersion;
        std::function<void()> openInfo;
        std::function<void()> openUnsupportedInfo;
    };

    HMWisprouteViewController(HMWisprouteManager &routing, Context context,
                              QWidget *parent = nullptr);
    ~HMWisprouteViewController() override;

    // Shows the notice or the editing controls as the plan and the helper allow.
    void updateAvailability();

protected:
    void showEvent(QShowEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void didPressAddDomain(bool exclusion);
    void didPressDeleteDomain(bool exclusion);
    void didToggleWisproute(int tag);
    void didEditRow(bool exclusion, QTableWidgetItem *item);
    void reloadTable(bool exclusion);
    void selectStoredMode();
    QTableWidget *table(bool exclusion) const;
    QLineEdit *field(bool exclusion) const;

    std::unique_ptr<Ui::HMWisprouteViewController> m_ui;
    HMWisprouteManager &m_routing;
    Context m_context;
    HMDomainListEditor m_editor;
    bool m_reloading = false;
};
