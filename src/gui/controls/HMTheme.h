// The one place that names the client's colours, for light and for dark desktops.
//
// Screens and controls ask for a colour by its name (displayConnectedStatusColor, ...);
// the scheme follows the desktop: the application palette's window colour decides, so a
// dark Plasma or GNOME theme gets the dark set without a restart (controls repaint on
// QEvent::PaletteChange). Add new colours to the table in HMTheme.cpp, in both schemes.
#pragma once

#include <QColor>
#include <QString>

class QLabel;
class QPushButton;

class HMTheme
{
public:
    enum class Scheme
    {
        Light,
        Dark,
    };

    // Dark when the application palette's window colour is dark.
    static Scheme scheme();
    static bool isDark() { return scheme() == Scheme::Dark; }

    // A colour by name in the current scheme; an unknown name is a programming error and
    // shows as magenta so it is seen at once.
    static QColor color(const QString &name);
    static QColor color(const QString &name, Scheme scheme);
    static bool hasColor(const QString &name);

    // Status display looks.
    static QColor displayConnectedStatusColor()
    {
        return color(QStringLiteral("displayConnectedStatusColor"));
    }
    static QColor displayConnectedStatusWisprouteColor()
    {
        return color(QStringLiteral("displayConnectedStatusWisprouteColor"));
    }
    static QColor displayDisconnectedStatusColor()
    {
        return color(QStringLiteral("displayDisconnectedStatusColor"));
    }
    // The error ring of form fields and the text of form errors.
    static QColor errorColor() { return color(QStringLiteral("errorColor")); }

    // Shared looks of the forms: a screen title, an error line, a secondary line.
    static void styleTitle(QLabel *label);
    static void styleError(QLabel *label);
    static void styleSecondary(QLabel *label);
    // A button that shows a request in flight: disabled, with `busyText` until idle again.
    static void setButtonBusy(QPushButton *button, bool busy, const QString &busyText);
};
