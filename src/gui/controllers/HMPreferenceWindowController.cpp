#include "HMPreferenceWindowController.h"

#include "HMScreenFactory.h"
#include "ui_HMPreferenceWindowController.h"

#include <QVBoxLayout>

namespace {

QWidget *createPane(HMPreferenceWindowController::Tab tab)
{
    switch (tab) {
    case HMPreferenceWindowController::Tab::General:
        return HMScreenFactory::createGeneralPane();
    case HMPreferenceWindowController::Tab::Wisproute:
        return HMScreenFactory::createWisproutePane();
    case HMPreferenceWindowController::Tab::Privacy:
        return HMScreenFactory::createPrivacyPane();
    case HMPreferenceWindowController::Tab::Account:
        return HMScreenFactory::createAccountPane();
    }
    return nullptr;
}

} // namespace

HMPreferenceWindowController::HMPreferenceWindowController(QObject *parent)
    : QObject(parent), m_ui(std::make_unique<Ui::HMPreferenceWindowController>())
{
    m_window = new QWidget;
    m_ui->setupUi(m_window);
    for (int i = 0; i < m_ui->preferenceTabs->count(); ++i) {
        placePane(Tab(i));
    }
}

HMPreferenceWindowController::~HMPreferenceWindowController()
{
    delete m_window;
}

void HMPreferenceWindowController::placePane(Tab tab)
{
    // The tab page is the form's; only the pane inside it is replaced, so the tab bar
    // neither flickers nor loses its order.
    QWidget *page = m_ui->preferenceTabs->widget(int(tab));
    delete pane(tab);
    page->layout()->addWidget(createPane(tab));
}

void HMPreferenceWindowController::showTab(Tab tab)
{
    placePane(tab);
    m_ui->preferenceTabs->setCurrentIndex(int(tab));
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

void HMPreferenceWindowController::closeWindow()
{
    m_window->hide();
}

bool HMPreferenceWindowController::isWindowVisible() const
{
    return m_window->isVisible();
}

QTabWidget *HMPreferenceWindowController::tabs() const
{
    return m_ui->preferenceTabs;
}

QWidget *HMPreferenceWindowController::pane(Tab tab) const
{
    QLayoutItem *item = m_ui->preferenceTabs->widget(int(tab))->layout()->itemAt(0);
    return item ? item->widget() : nullptr;
}
