// One user-level connect request, from switch-on until OpenVPN runs and the management
// connection is open.
//
// Each attempt refreshes the VPN token, resolves "Closest" to a real country and server
// list, has the helper start OpenVPN and opens the management connection; a failed attempt
// is retried after 1, 2, 4 and 8 seconds while the network is reachable, five attempts in
// all. Reaching Connected is not the sequence's business: OpenVPN reports that over the
// management interface to the VPN manager. The manager creates a sequence for a connect
// request unless one is still live (a second request joins it, so one OpenVPN never has two
// sequences driving it) and marks it cancelled on every disconnect; pending steps keep the
// sequence alive (it is shared). A cancelled sequence starts nothing more, and an OpenVPN the
// helper started for it after all is stopped unless a newer attempt owns it.
//
// With a fixed country the token renewal and the helper's start run side by side; OpenVPN's
// password prompt waits for the renewal (see connectWithCompletion for why and how every
// failure still ends as it would one after the other).
#pragma once

#include "HMError.h"

#include <QList>
#include <QPointer>
#include <QVariantList>
#include <functional>
#include <memory>

class HMVPNManager;

class HMVPNConnectionSequence : public std::enable_shared_from_this<HMVPNConnectionSequence>
{
public:
    using Completion = std::function<void(const HMMaybeError &)>;

    static constexpr unsigned kMaximumAttempts = 5;

    explicit HMVPNConnectionSequence(HMVPNManager &manager);

    // Starts one attempt. The completion runs only on final failure or when the account is
    // out of data: never on success, never after cancellation.
    void connectWithCompletion(Completion completion);
    // A later connect request riding on this sequence: its completion runs when this one's
    // does.
    void addCompletion(Completion completion);
    // Still able to bring the tunnel up: not cancelled and not ended in failure, out of
    // data or a failed closest-server test.
    bool isLive() const { return !m_cancelled && !m_finished; }
    // Retry with back-off, or final failure.
    void handleError(const HMError &error, Completion completion);
    // The management connection of this attempt closed before the tunnel came up.
    void attemptDidFail(const HMError &error);
    // OpenVPN may be running already while this attempt's token renewal is still out; its
    // password prompt must not be answered with the old token until then.
    bool isAwaitingToken() const { return isLive() && !m_tokenFresh; }

    bool isCancelled() const { return m_cancelled; }
    void setCancelled(bool cancelled) { m_cancelled = cancelled; }
    unsigned numConnectionAttempts() const { return m_numConnectionAttempts; }
    void setNumConnectionAttempts(unsigned count) { m_numConnectionAttempts = count; }

private:
    void tokenDidRefresh(const HMMaybeError &error, const Completion &completion);
    void startOpenVPN(const Completion &completion);
    void finish(const Completion &completion, const HMError &error);
    // This attempt failed: answers still out for it are dropped and an OpenVPN it asked for
    // is stopped (the helper runs requests in order, so the stop follows the start).
    void failAttempt(const HMError &error, const Completion &completion);
    void abandonStartedTunnel();

    QPointer<HMVPNManager> m_manager;
    bool m_cancelled = false;
    bool m_finished = false;
    QList<Completion> m_joined;
    unsigned m_numConnectionAttempts = 0;
    Completion m_completion;
    // Bumped when an attempt starts or fails: answers carrying an older value are stale.
    unsigned m_generation = 0;
    // Bumped by every start request: only the latest one's answer may open management.
    unsigned m_startGeneration = 0;
    bool m_tokenFresh = false;
    bool m_startSent = false;
    QVariantList m_startedServers;
};
