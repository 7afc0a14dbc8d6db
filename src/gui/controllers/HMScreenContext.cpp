#include "HMScreenContext.h"

#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMVPNManager.h"
#include "HMWisprouteManager.h"

const char *const kHMDidLogInNotification = "HMDidLogInNotification";
const char *const kHMDidSwitchDialOffNotification = "HMDidSwitchDialOffNotification";

HMScreenContext HMScreenContext::shared()
{
    HMScreenContext context;
    context.account = &HMAccountManager::instance();
    context.vpn = &HMVPNManager::instance();
    context.api = &HMAPIClient::instance();
    context.routing = &HMWisprouteManager::instance();
    context.center = &HMNotificationCenter::defaultCenter();
    context.store = &HMPreferenceStore::instance();
    return context;
}
