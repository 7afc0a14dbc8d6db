// hm-bench-minimal-tray: the smallest Qt tray program, the reference the shell's start-up
// benchmark compares the application with: one icon, one menu entry, the event loop.
#include <QApplication>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QPixmap pixmap(22, 22);
    pixmap.fill(Qt::transparent);
    QPainter(&pixmap).fillRect(4, 4, 14, 14, Qt::darkGreen);
    QMenu menu;
    QObject::connect(menu.addAction(QStringLiteral("Quit")), &QAction::triggered, &app,
                     &QCoreApplication::quit);
    QSystemTrayIcon icon{QIcon(pixmap)};
    icon.setContextMenu(&menu);
    icon.show();
    return QApplication::exec();
}
