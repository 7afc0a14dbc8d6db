#include "HMWisprouteViewController.h"

#include "HMWisprouteManager.h"
#include "ui_HMWisprouteViewController.h"

#include <QButtonGroup>
#include <QKeyEvent>

HMWisprouteViewController::HMWisprouteViewController(HMWisprouteManager &routing, Context context,
                                                     QWidget *parent)
    : QWidget(parent), m_ui(std::make_unique<Ui::HMWisprouteViewController>()), m_routing(routing),
      m_context(std::move(context)), m_editor(routing, m_context.isConnected)
{
    m_ui->setupUi(this);
    auto *matrix = new QButtonGroup(this);
    matrix->setObjectName(QStringLiteral("wisprouteMatrix"));
    matrix->addButton(m_ui->offRadioButton, HMDomainListEditor::TagOff);
    matrix->addButton(m_ui->wisprouteRadioButton, HMDomainListEditor::TagInclusion);
    matrix->addButton(m_ui->exclusionRadioButton, HMDomainListEditor::TagExclusion);
    connect(matrix, &QButtonGroup::idClicked, this, &HMWisprouteViewController::didToggleWisproute);

    for (const bool exclusion : {false, true}) {
        QPushButton *add = exclusion ? m_ui->addDomainExButton : m_ui->addDomainButton;
        QPushButton *remove = exclusion ? m_ui->deleteDomainExButton : m_ui->deleteDomainButton;
        connect(add, &QPushButton::clicked, this,
                [this, exclusion] { didPressAddDomain(exclusion); });
        connect(field(exclusion), &QLineEdit::returnPressed, this,
                [this, exclusion] { didPressAddDomain(exclusion); });
        connect(remove, &QPushButton::clicked, this,
                [this, exclusion] { didPressDeleteDomain(exclusion); });
        connect(table(exclusion), &QTableWidget::itemChanged, this,
                [this, exclusion](QTableWidgetItem *item) { didEditRow(exclusion, item); });
        table(exclusion)->installEventFilter(this);
    }
    connect(m_ui->infoButton, &QPushButton::clicked, this, [this] {
        if (m_context.openInfo) {
            m_context.openInfo();
        }
    });
    connect(m_ui->paidInfoButton, &QPushButton::clicked, m_ui->infoButton, &QPushButton::click);
    connect(m_ui->infoUnsupportedButton, &QPushButton::clicked, this, [this] {
        if (m_context.openUnsupportedInfo) {
            m_context.openUnsupportedInfo();
        }
    });

    m_editor.load();
    reloadTable(false);
    reloadTable(true);
    updateAvailability();
}

HMWisprouteViewController::~HMWisprouteViewController() = default;

QTableWidget *HMWisprouteViewController::table(bool exclusion) const
{
    return exclusion ? m_ui->domainsExTableView : m_ui->domainsTableView;
}

QLineEdit *HMWisprouteViewController::field(bool exclusion) const
{
    return exclusion ? m_ui->domainExTextField : m_ui->domainTextField;
}

void HMWisprouteViewController::updateAvailability()
{
    const bool full = m_context.isFullVersion && m_context.isFullVersion();
    const bool supported = m_routing.isSupported();
    m_ui->editingArea->setVisible(full && supported);
    m_ui->unsupportedNotice->setVisible(full && !supported);
    m_ui->paidNotice->setVisible(!full);
}

void HMWisprouteViewController::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    updateAvailability();
    selectStoredMode();
}

void HMWisprouteViewController::selectStoredMode()
{
    // A stored mode outside 0-2 leaves the choice as it is.
    const std::optional<int> tag = HMDomainListEditor::tagForMode(m_routing.wisprouteMode());
    if (!tag) {
        return;
    }
    QRadioButton *buttons[] = {m_ui->offRadioButton, m_ui->wisprouteRadioButton,
                               m_ui->exclusionRadioButton};
    buttons[*tag]->setChecked(true);
}

bool HMWisprouteViewController::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        for (const bool exclusion : {false, true}) {
            // While a row is being edited its editor has the keys, not the table.
            if (watched == table(exclusion) &&
                (key == Qt::Key_Delete || key == Qt::Key_Backspace)) {
                didPressDeleteDomain(exclusion);
                return true;
            }
        }
    }
    return QWidget::eventFilter(watched, event);
}

void HMWisprouteViewController::reloadTable(bool exclusion)
{
    m_reloading = true;
    QTableWidget *view = table(exclusion);
    const QStringList &entries = m_editor.list(exclusion);
    view->setRowCount(int(entries.size()));
    for (int row = 0; row < entries.size(); ++row) {
        auto *item = new QTableWidgetItem(entries.at(row));
        view->setItem(row, 0, item);
    }
    m_reloading = false;
}

void HMWisprouteViewController::didPressAddDomain(bool exclusion)
{
    const std::optional<int> row = m_editor.addDomain(exclusion, field(exclusion)->text());
    if (!row) {
        return; // refused or already listed: silently, and the field keeps the text
    }
    reloadTable(exclusion);
    field(exclusion)->clear();
    table(exclusion)->scrollToBottom();
    table(exclusion)->selectRow(*row);
}

void HMWisprouteViewController::didPressDeleteDomain(bool exclusion)
{
    const int row = table(exclusion)->currentRow();
    if (m_editor.deleteDomain(exclusion, row)) {
        reloadTable(exclusion);
    }
}

void HMWisprouteViewController::didEditRow(bool exclusion, QTableWidgetItem *item)
{
    if (m_reloading) {
        return;
    }
    m_editor.editDomain(exclusion, item->row(), item->data(Qt::EditRole));
    // Accepted or dropped, the row shows what the list now holds; deferred because the
    // item is still being written to.
    QMetaObject::invokeMethod(
        this, [this, exclusion] { reloadTable(exclusion); }, Qt::QueuedConnection);
}

void HMWisprouteViewController::didToggleWisproute(int tag)
{
    m_editor.chooseTag(tag);
}
