#pragma once

#include "core/AppError.h"
#include "core/Clock.h"
#include "phone/AccessibilityElement.h"

#include <QObject>
#include <QString>
#include <functional>
#include <map>
#include <vector>

namespace vemira {

// Sets the phone application's own microphone and output to the two virtual devices by
// driving its "Vidéo" menu, confirms the choice and puts the previous devices back when it
// cannot be confirmed. Asynchronous (it waits between menu steps without blocking), main
// thread only; it holds no state of its own. Pending steps die with the object.
class NativeAudioSetup {
public:
    using Done = std::function<void(Status)>;
    using MenuDone = std::function<void(Result<AccessibilityElementPtr>)>;

    static constexpr double kMenuTimeout = 0.5;
    static constexpr double kAfterLaunchDelay = 0.2;
    static constexpr double kAfterMenuPressDelay = 0.12;

    static QString inputDeviceName();  // "Brelian — IA vers appel"
    static QString outputDeviceName(); // "Brelian — Appel vers IA"

    // `applicationId`: see phoneApplicationId().
    NativeAudioSetup(Accessibility& accessibility, Clock& clock, QString applicationId);

    // Titles of the items checked before prepare() changed them, to be kept in the
    // preferences "phonePreviousInput" / "phonePreviousOutput"; called only when found.
    std::function<void(const QString&)> storePreviousInput;
    std::function<void(const QString&)> storePreviousOutput;

    void prepare(Done done);
    void useSystemAudio(Done done);

    // Steps, public so each can be exercised on its own.
    void audioMenu(MenuDone done);
    void choose(const QString& name, bool input, Done done);
    static std::vector<AccessibilityElementPtr> section(AccessibilityElement& menu, bool input);
    static bool selected(AccessibilityElement& item);
    static QString title(AccessibilityElement& element);

private:
    void confirm(const QString& previousInput, const QString& previousOutput, Done done);
    void rollback(AppError error, const QString& previousInput, const QString& previousOutput,
                  Done done);
    void systemAudioPass(bool input, Done done);
    // Runs `step` after `seconds` unless this object is gone by then.
    void after(double seconds, std::function<void()> step);

    Accessibility& m_accessibility;
    Clock& m_clock;
    QString m_applicationId;
    QObject m_context; // scheduled steps are dropped when this object goes
    std::map<quint64, TaskHandlePtr> m_waits;
    quint64 m_nextWait = 0;
};

} // namespace vemira
