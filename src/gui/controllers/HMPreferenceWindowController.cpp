#include "HMPreferenceWindowController.h"

#include "HMScreenFactory.h"

#include <QTabWidget>
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

const char *const kTitles[] = {
    QT_TRANSLATE_NOOP("HMPreferenceWindowController", "General"),
    QT_TRANSLATE_NOOP("HMPreferenceWindowController", "Selective routing"),
    QT_TRANSLATE_NOOP("HMPreferenceWindowController", "Privacy"),
    QT_TRANSLATE_NOOP("HMPreferenceWindowController", "Account")};

} // namespace

HMPreferenceWindowController::HMPreferenceWindowController(QObject *parent) : QObject(parent)
{
    m_window = new QWidget;
    m_window->setWindowTitle(tr("Hollowmere Preferences"));
    m_window->setObjectName(QStringLiteral("preferencesWindow"));
    m_window->setAccessibleName(m_window->windowTitle());
    auto *layout = new QVBoxLayout(m_window);
    m_tabs = new QTabWidget(m_window);
    m_tabs->setAccessibleName(tr("Preference tabs"));
    layout->addWidget(m_tabs);
    for (int i = 0; i < 4; ++i) {
        m_tabs->addTab(createPane(Tab(i)), tr(kTitles[i]));
    }
    m_window->resize(560, 440);
}

HMPreferenceWindowController::~HMPreferenceWindowController()
{
    delete m_window;
}

void HMPreferenceWindowController::showTab(Tab tab)
{
    const int index = int(tab);
    QWidget *old = m_tabs->widget(index);
    m_tabs->removeTab(index);
    delete old;
    m_tabs->insertTab(index, createPane(tab), tr(kTitles[index]));
    m_tabs->setCurrentIndex(index);
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

QWidget *HMPreferenceWindowController::pane(Tab tab) const
{
    return m_tabs->widget(int(tab));
}
