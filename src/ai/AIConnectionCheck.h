#pragma once

#include "core/Clock.h"

#include <QString>
#include <functional>
#include <memory>
#include <optional>

namespace vemira {

class RealtimeClient;

// Proves that a key, a model and the network can open a realtime session: a short-lived
// client connects with a neutral instruction and succeeds on the first "session.updated".
// No audio is sent and no response requested. Main thread only.
class AIConnectionCheck {
public:
    static constexpr double timeoutSeconds = 15;

    static QString instructions();   // "Vérification de connexion. Ne génère aucune réponse."
    static QString timeoutMessage(); // shown when nothing confirms the session in time
    static QString successStatus();  // "Connexion IA vérifiée"

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
