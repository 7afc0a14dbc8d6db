// What a screen test builds its screens over: a real account manager on a private store,
// the VPN manager with faked collaborators (HMVPNTestRig), an API client, the routing
// manager, one notification centre for the account and the screens, and a presenter that
// keeps the screen it was handed so a test can look at it.
#pragma once

#include "HMAPIClient.h"
#include "HMAccountWorld.h"
#include "HMScreenContext.h"
#include "HMScreenPresenter.h"
#include "HMVPNTestRig.h"

#include <QPointer>
#include <QStringList>
#include <QWidget>
#include <functional>
#include <memory>

class HMRecordingPresenter : public HMScreenPresenter
{
public:
    void presentViewController(QWidget *screen, Animation) override
    {
        // Deleted later, as a window does: the screen that asked may still be on the stack.
        if (m_screen) {
            m_screen->deleteLater();
        }
        m_screen = screen;
        presented.append(QString::fromLatin1(screen->metaObject()->className()));
    }
    void showWindow() override { visible = true; }
    void closeWindow() override
    {
        visible = false;
        ++closed;
    }
    bool isWindowVisible() const override { return visible; }

    QWidget *screen() const { return m_screen; }
    ~HMRecordingPresenter() override { delete m_screen; }

    QStringList presented;
    bool visible = true;
    int closed = 0;

private:
    QPointer<QWidget> m_screen;
};

struct HMScreenWorld
{
    using APIFactory =
        std::function<std::unique_ptr<HMAPIClient>(HMClock &, HMNotificationCenter &)>;

    // Without a factory the API client's network is never reachable (nothing is sent).
    explicit HMScreenWorld(const APIFactory &makeAPI = {}, qint64 allowance = 100 * kMiB)
        : rig(allowance)
    {
        if (makeAPI) {
            m_api = makeAPI(rig.clock, accounts.center);
        } else {
            m_api = std::make_unique<HMAPIClient>(
                HMDeploymentValues::builtIn(), [] { return false; }, rig.clock, accounts.center);
        }
        accounts.account->setAPIClient(m_api.get());
    }

    HMScreenContext context()
    {
        HMScreenContext c;
        c.account = accounts.account.get();
        c.vpn = rig.vpn.get();
        c.api = m_api.get();
        c.routing = accounts.routing.get();
        c.center = &accounts.center;
        c.store = accounts.store.get();
        return c;
    }

    HMAccountWorld accounts;
    HMVPNTestRig rig;
    HMRecordingPresenter presenter;

private:
    std::unique_ptr<HMAPIClient> m_api;
};
