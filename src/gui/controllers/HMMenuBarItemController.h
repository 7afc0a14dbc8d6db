// The tray item: the client's only permanent presence on the desktop.
//
// Shows the tunnel's state as the tray icon and offers the menu; StatusNotifierItem is used
// where the desktop has it (QSystemTrayIcon picks it).
#pragma once

#include <QObject>

class QMenu;
class QSystemTrayIcon;

class HMMenuBarItemController : public QObject
{
    Q_OBJECT
public:
    explicit HMMenuBarItemController(QObject *parent = nullptr);
    ~HMMenuBarItemController() override;

    void show();
    void hide();
    bool isVisible() const;
    QMenu *menu() const { return m_menu; }

private:
    QSystemTrayIcon *m_trayIcon = nullptr;
    QMenu *m_menu = nullptr;
};
