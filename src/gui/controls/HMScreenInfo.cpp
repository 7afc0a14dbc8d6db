#include "HMScreenInfo.h"

#include <QGuiApplication>
#include <QScreen>

bool is_retina()
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    return screen && screen->devicePixelRatio() >= 2.0;
}
