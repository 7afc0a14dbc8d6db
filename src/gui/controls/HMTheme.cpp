#include "HMTheme.h"

#include <QGuiApplication>
#include <QHash>
#include <QLabel>
#include <QPalette>
#include <QPushButton>

namespace {

struct Pair
{
    QRgb light;
    QRgb dark;
};

// Names used by the status display follow the look they belong to: "...Connected..." for
// the full tunnel, "...WisprouteConnected..." for selective routing, "...Disconnected..."
// for every other state.
const QHash<QString, Pair> &table()
{
    static const QHash<QString, Pair> colours{
        // Status line.
        {QStringLiteral("displayConnectedStatusColor"), {0xffffffff, 0xffe9fff4}},
        {QStringLiteral("displayConnectedStatusWisprouteColor"), {0xffffffff, 0xfff3ecff}},
        {QStringLiteral("displayDisconnectedStatusColor"), {0xff2b3440, 0xffe3e7ec}},
        // Account line and data bar.
        {QStringLiteral("progressBarConnectedTextColor"), {0xffeafff4, 0xffc9f2dc}},
        {QStringLiteral("progressBarConnectedBackgroundColor"), {0xff0d6b47, 0xff0b4431}},
        {QStringLiteral("progressBarConnectedColor"), {0xff7ef0b5, 0xff4fd391}},
        {QStringLiteral("progressBarWisprouteConnectedTextColor"), {0xfff1eaff, 0xffdacdfa}},
        {QStringLiteral("progressBarWisprouteConnectedBackgroundColor"), {0xffb79cff, 0xff8d6fe0}},
        {QStringLiteral("progressBarDisconnectedTextColor"), {0xff4a5563, 0xffa9b3bf}},
        {QStringLiteral("progressBarDisconnectedBackgroundColor"), {0xffd5dbe2, 0xff3a4350}},
        {QStringLiteral("progressBarDisconnectedColor"), {0xff5b8def, 0xff6f9cf5}},
        // Backgrounds of the three looks, top and bottom of the gradient.
        {QStringLiteral("displayOnTopColor"), {0xff17a673, 0xff0f6e4d}},
        {QStringLiteral("displayOnBottomColor"), {0xff0b7a52, 0xff08402d}},
        {QStringLiteral("displayOnWisprouteTopColor"), {0xff7b55e0, 0xff5a3ab3}},
        {QStringLiteral("displayOnWisprouteBottomColor"), {0xff4f2fb0, 0xff2f1c6e}},
        {QStringLiteral("displayOffTopColor"), {0xfff4f6f9, 0xff2a313b}},
        {QStringLiteral("displayOffBottomColor"), {0xffe2e7ee, 0xff1e242c}},
        {QStringLiteral("displayLogoOnColor"), {0xffffffff, 0xffe9fff4}},
        {QStringLiteral("displayLogoOffColor"), {0xff7b8794, 0xff8a96a3}},
        {QStringLiteral("displaySwitchOffColor"), {0xffffffff, 0xffdfe6ee}},
        // State indicator.
        {QStringLiteral("indicatorConnectedColor"), {0xff3ee08f, 0xff4fe39a}},
        {QStringLiteral("indicatorWisprouteColor"), {0xffe5d9ff, 0xffc9b5ff}},
        {QStringLiteral("indicatorConnectingColor"), {0xfff0a531, 0xfff3b450}},
        {QStringLiteral("indicatorDisconnectedColor"), {0xff8a96a3, 0xff8a96a3}},
        {QStringLiteral("indicatorErrorColor"), {0xffd93a3a, 0xffff6b6b}},
        // The dial.
        {QStringLiteral("dialOnColor"), {0xff17a673, 0xff26b981}},
        {QStringLiteral("dialOnWisprouteColor"), {0xff7b55e0, 0xff8d6fe0}},
        {QStringLiteral("dialOffColor"), {0xffc3cbd4, 0xff4a5462}},
        {QStringLiteral("dialKnobColor"), {0xffffffff, 0xfff2f4f7}},
        {QStringLiteral("dialFocusColor"), {0xff2f6fde, 0xff7aa7ff}},
        // Forms.
        {QStringLiteral("errorColor"), {0xffd0312d, 0xffff6b66}},
        {QStringLiteral("hintColor"), {0xff5d6875, 0xffa9b3bf}},
        {QStringLiteral("strengthWeakColor"), {0xffd0312d, 0xffff6b66}},
        {QStringLiteral("strengthMediumColor"), {0xffc27c0e, 0xfff3b450}},
        {QStringLiteral("strengthStrongColor"), {0xff0d8a5a, 0xff4fd391}},
    };
    return colours;
}

} // namespace

HMTheme::Scheme HMTheme::scheme()
{
    const QColor window = QGuiApplication::palette().color(QPalette::Window);
    return window.lightness() < 128 ? Scheme::Dark : Scheme::Light;
}

QColor HMTheme::color(const QString &name)
{
    return color(name, scheme());
}

QColor HMTheme::color(const QString &name, Scheme scheme)
{
    const auto it = table().constFind(name);
    if (it == table().constEnd()) {
        return QColor(Qt::magenta);
    }
    return QColor::fromRgba(scheme == Scheme::Dark ? it->dark : it->light);
}

bool HMTheme::hasColor(const QString &name)
{
    return table().contains(name);
}

namespace {

void setTextColor(QLabel *label, const QColor &color)
{
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, color);
    label->setPalette(palette);
}

} // namespace

void HMTheme::styleTitle(QLabel *label)
{
    QFont font = label->font();
    font.setPointSizeF(font.pointSizeF() * 1.35);
    font.setBold(true);
    label->setFont(font);
}

void HMTheme::styleError(QLabel *label)
{
    setTextColor(label, errorColor());
    label->setWordWrap(true);
}

void HMTheme::styleSecondary(QLabel *label)
{
    setTextColor(label, color(QStringLiteral("hintColor")));
}

void HMTheme::setButtonBusy(QPushButton *button, bool busy, const QString &busyText)
{
    const char *kIdleText = "hmIdleText";
    if (busy) {
        if (!button->property(kIdleText).isValid()) {
            button->setProperty(kIdleText, button->text());
        }
        button->setText(busyText);
    } else if (button->property(kIdleText).isValid()) {
        button->setText(button->property(kIdleText).toString());
        button->setProperty(kIdleText, QVariant());
    }
    button->setEnabled(!busy);
}
