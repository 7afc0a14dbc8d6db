#include "HMMenuBarItemController.h"

#include <QApplication>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>

HMMenuBarItemController::HMMenuBarItemController(QObject *parent) : QObject(parent)
{
    m_menu = new QMenu();
    QAction *quit = m_menu->addAction(tr("Quit Hollowmere"));
    connect(quit, &QAction::triggered, qApp, &QCoreApplication::quit);

    m_trayIcon = new QSystemTrayIcon(QIcon(QStringLiteral(":/images/tray_off.png")), this);
    m_trayIcon->setToolTip(QStringLiteral("Hollowmere"));
    m_trayIcon->setContextMenu(m_menu);
}

HMMenuBarItemController::~HMMenuBarItemController()
{
    delete m_menu;
}

void HMMenuBarItemController::show()
{
    m_trayIcon->show();
}

void HMMenuBarItemController::hide()
{
    m_trayIcon->hide();
}

bool HMMenuBarItemController::isVisible() const
{
    return m_trayIcon->isVisible();
}
