#include "HMScreenFactory.h"

#include <QLabel>

// Placeholders until the screens land: each says plainly that it is missing.
namespace {
QWidget *notInThisBuild()
{
    auto *label = new QLabel(QStringLiteral("This screen is not part of this build yet."));
    label->setAlignment(Qt::AlignCenter);
    label->setWordWrap(true);
    label->setAccessibleName(label->text());
    return label;
}
} // namespace

namespace HMScreenFactory {
QWidget *createLaunchScreen(HMScreenPresenter &)
{
    return notInThisBuild();
}
QWidget *createLoginScreen(HMScreenPresenter &)
{
    return notInThisBuild();
}
QWidget *createVerifyEmailScreen(HMScreenPresenter &)
{
    return notInThisBuild();
}
QWidget *createDiagnosticsScreen(HMScreenPresenter &)
{
    return notInThisBuild();
}
QWidget *createMainPanel()
{
    return notInThisBuild();
}
QWidget *createGeneralPane()
{
    return notInThisBuild();
}
QWidget *createWisproutePane()
{
    return notInThisBuild();
}
QWidget *createPrivacyPane()
{
    return notInThisBuild();
}
QWidget *createAccountPane()
{
    return notInThisBuild();
}
} // namespace HMScreenFactory
