// A throw-away account for manager tests: its own preference file, an in-memory keychain,
// a private notification centre, the routing manager and the account manager, made in
// dependency order and torn down in the reverse (member order does it).
#pragma once

#include "HMAccountManager.h"
#include "HMMemoryKeychain.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMWisprouteManager.h"

#include <QTemporaryDir>
#include <memory>

struct HMAccountWorld
{
    // Without routing the account's logout has no routing reset to call.
    explicit HMAccountWorld(bool withRouting = true)
        : store(std::make_unique<HMPreferenceStore>(dir.filePath(QStringLiteral("prefs.json"))))
    {
        if (withRouting) {
            routing = std::make_unique<HMWisprouteManager>(*store);
        }
        account = std::make_unique<HMAccountManager>(*store, keychain, routing.get(), center);
    }

    QTemporaryDir dir;
    std::unique_ptr<HMPreferenceStore> store;
    HMMemoryKeychain keychain;
    HMNotificationCenter center;
    std::unique_ptr<HMWisprouteManager> routing;
    std::unique_ptr<HMAccountManager> account;
};
