#include "HMScreenFactory.h"

#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMAccountViewController.h"
#include "HMDiagnosticsViewController.h"
#include "HMGeneralViewController.h"
#include "HMLaunchViewController.h"
#include "HMLogFileManager.h"
#include "HMLoginViewController.h"
#include "HMMainViewController.h"
#include "HMPrivacyManager.h"
#include "HMPrivacyViewController.h"
#include "HMScreenContext.h"
#include "HMVPNManager.h"
#include "HMVerifyEmailViewController.h"
#include "HMWisprouteManager.h"
#include "HMWisprouteViewController.h"

#include <optional>

namespace {
std::optional<HMScreenContext> &storedContext()
{
    static std::optional<HMScreenContext> context;
    return context;
}

HMScreenContext context()
{
    if (!storedContext()) {
        storedContext() = HMScreenContext::shared();
    }
    return *storedContext();
}
} // namespace

namespace HMScreenFactory {

void setContext(const HMScreenContext &context)
{
    storedContext() = context;
}

QWidget *createLaunchScreen(HMScreenPresenter &presenter)
{
    return new HMLaunchViewController(presenter, context());
}

QWidget *createLoginScreen(HMScreenPresenter &presenter)
{
    return new HMLoginViewController(presenter, context());
}

QWidget *createVerifyEmailScreen(HMScreenPresenter &presenter)
{
    return new HMVerifyEmailViewController(presenter, context());
}

QWidget *createDiagnosticsScreen(HMScreenPresenter &presenter)
{
    return new HMDiagnosticsViewController(presenter, HMLogFileManager::instance(), *context().api);
}

QWidget *createMainPanel()
{
    return new HMMainViewController(context());
}

QWidget *createGeneralPane()
{
    return new HMGeneralViewController(context());
}

QWidget *createWisproutePane()
{
    const HMScreenContext screens = context();
    HMWisprouteViewController::Context pane;
    pane.isConnected = [vpn = screens.vpn] { return vpn->isConnected(); };
    pane.isFullVersion = [account = screens.account] { return account->isFullVersion(); };
    pane.openInfo = [api = screens.api] { api->openWisprouteInfo(); };
    pane.openUnsupportedInfo = [api = screens.api] { api->openWisprouteUnsupportedInfo(); };
    return new HMWisprouteViewController(*screens.routing, pane);
}

QWidget *createPrivacyPane()
{
    const HMScreenContext screens = context();
    return new HMPrivacyViewController(HMPrivacyManager::instance(), *screens.routing, screens.vpn);
}

QWidget *createAccountPane()
{
    return new HMAccountViewController(context());
}

} // namespace HMScreenFactory
