#pragma once

#include "core/Clock.h"

#include <QString>
#include <functional>
#include <memory>
#include <optional>

namespace vemira {

class RealtimeClient;

// Proves that a key, a model and the network can open a realtime session, and that the account
// can still be billed for a response: a short-lived client connects with a neutral instruction;
// once the session is confirmed it asks for the smallest response there is (text only, outside
// the conversation, one output token, a few dozen input tokens) and succeeds when that response
// ends other than "failed". No audio is sent. Main thread only.
class AIConnectionCheck {
public:
    static constexpr double timeoutSeconds = 15;

    static QString instructions();   // "Vérification de connexion. Ne génère aucune réponse."
    static QString timeoutMessage(); // shown when nothing confirms the session in time
    static QString successStatus();  // "Connexion IA vérifiée"
    // The session opened but the provider would not produce the test response.
    static QString refusedMessage(const QString& reason);

    explicit AIConnectionCheck(Clock& clock);
    ~AIConnectionCheck();

    // Called once per check: nullopt on success, else the user-facing reason. The callback may
    // start a new check or destroy this object.
    std::function<void(const std::optional<QString>& failure)> onComplete;

    // Starts a check; does nothing while one is running.
    void start(const QString& key, const QString& model, const QString& voice);
    // Stops a running check without completing it.
    void cancel();
    bool running() const { return m_probe != nullptr; }

private:
    void complete(const std::optional<QString>& failure);

    Clock& m_clock;
    std::unique_ptr<RealtimeClient> m_probe;
    TaskHandlePtr m_timeout;
};

} // namespace vemira
