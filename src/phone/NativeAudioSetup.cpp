#include "phone/NativeAudioSetup.h"

#include "phone/LabelText.h"

#include <QPointer>
#include <utility>

namespace vemira {

namespace {

QString videoMenuIdentifier()
{
    return QStringLiteral("com.apple.facetime.menu.video");
}

bool isInputHeader(const QString& folded)
{
    return folded == QStringLiteral("micro") || folded == QStringLiteral("microphone");
}

bool isOutputHeader(const QString& folded)
{
    return folded == QStringLiteral("sortie") || folded == QStringLiteral("output") ||
           folded == QStringLiteral("speakers") || folded == QStringLiteral("haut-parleurs");
}

bool isSystemSettingItem(const QString& folded)
{
    return folded == QStringLiteral("utiliser le reglage systeme") ||
           folded == QStringLiteral("use system setting");
}

// The phone application may hang: every element of the menu sequence is bounded before it is
// asked anything (each element object carries its own timeout).
const AccessibilityElementPtr& bounded(const AccessibilityElementPtr& element)
{
    if (element)
        element->setMessagingTimeout(NativeAudioSetup::kMenuTimeout);
    return element;
}

AccessibilityElementPtr firstTitled(const std::vector<AccessibilityElementPtr>& items,
                                    const QString& name)
{
    for (const AccessibilityElementPtr& item : items) {
        if (NativeAudioSetup::title(*item) == name)
            return item;
    }
    return nullptr;
}

QString firstSelectedTitle(const std::vector<AccessibilityElementPtr>& items)
{
    for (const AccessibilityElementPtr& item : items) {
        if (NativeAudioSetup::selected(*item))
            return NativeAudioSetup::title(*item);
    }
    return {};
}

} // namespace

QString NativeAudioSetup::inputDeviceName()
{
    return QStringLiteral("Brelian — IA vers appel");
}
QString NativeAudioSetup::outputDeviceName()
{
    return QStringLiteral("Brelian — Appel vers IA");
}

NativeAudioSetup::NativeAudioSetup(Accessibility& accessibility, Clock& clock,
                                   QString applicationId)
    : m_accessibility(accessibility), m_clock(clock), m_applicationId(std::move(applicationId))
{}

void NativeAudioSetup::after(double seconds, std::function<void()> step)
{
    const quint64 id = ++m_nextWait;
    m_waits[id] = m_clock.schedule(seconds, &m_context, [this, id, step = std::move(step)] {
        // Keep the handle until the step has run: dropping it cancels the timer.
        TaskHandlePtr handle = std::move(m_waits[id]);
        m_waits.erase(id);
        step();
    });
}

QString NativeAudioSetup::title(AccessibilityElement& element)
{
    return element.label(LabelAttribute::Title).value_or(QString());
}

bool NativeAudioSetup::selected(AccessibilityElement& item)
{
    if (const std::optional<QString> mark = item.markCharacter(); mark && !mark->isEmpty())
        return true;
    return item.selected().value_or(false);
}

std::vector<AccessibilityElementPtr> NativeAudioSetup::section(AccessibilityElement& menu,
                                                               bool input)
{
    enum class Part { None, Input, Output };
    const Part wanted = input ? Part::Input : Part::Output;
    Part current = Part::None;
    std::vector<AccessibilityElementPtr> items;
    for (AccessibilityElementPtr& item : menu.children()) {
        if (!bounded(item))
            continue;
        const QString folded = normalizedLabel(title(*item));
        if (isInputHeader(folded))
            current = Part::Input;
        else if (isOutputHeader(folded))
            current = Part::Output;
        else if (current == wanted)
            items.push_back(std::move(item));
    }
    return items;
}

void NativeAudioSetup::audioMenu(MenuDone done)
{
    if (!m_accessibility.isTrusted()) {
        done(AppError(
            QStringLiteral("Autorisez Accessibilité, puis recliquez sur Préparer la liaison.")));
        return;
    }
    if (!m_accessibility.canOpenApplication(m_applicationId)) {
        done(AppError(QStringLiteral("L’application Téléphone de macOS 26 est nécessaire.")));
        return;
    }
    QPointer<QObject> alive(&m_context);
    m_accessibility.openApplication(m_applicationId, [this, alive, done = std::move(done)] {
        if (!alive)
            return;
        after(kAfterLaunchDelay, [this, done = std::move(done)] {
            const QString unreachable = QStringLiteral("Menu de Téléphone inaccessible.");
            const std::vector<AccessibilityElementPtr> roots =
                m_accessibility.applicationRoots({m_applicationId});
            if (roots.empty() || !roots.front()) {
                done(AppError(unreachable));
                return;
            }
            const AccessibilityElementPtr& root = roots.front();
            root->setMessagingTimeout(kMenuTimeout);
            const AccessibilityElementPtr bar = bounded(root->menuBar());
            if (!bar) {
                done(AppError(unreachable));
                return;
            }
            const std::vector<AccessibilityElementPtr> barItems = bar->children();
            AccessibilityElementPtr video;
            for (const AccessibilityElementPtr& item : barItems)
                bounded(item);
            for (const AccessibilityElementPtr& item : barItems) {
                if (item && item->identifier() == videoMenuIdentifier()) {
                    video = item;
                    break;
                }
            }
            for (const AccessibilityElementPtr& item : barItems) {
                if (video)
                    break;
                const QString name = item ? title(*item) : QString();
                if (name == QStringLiteral("Vidéo") || name == QStringLiteral("Video"))
                    video = item;
            }
            if (!video) {
                done(AppError(QStringLiteral(
                    "Menu audio de Téléphone introuvable sur cette version de macOS.")));
                return;
            }
            if (!video->press()) {
                done(AppError(
                    QStringLiteral("Impossible d’ouvrir les réglages audio de Téléphone.")));
                return;
            }
            after(kAfterMenuPressDelay, [video, done = std::move(done)] {
                const std::vector<AccessibilityElementPtr> opened = video->children();
                if (opened.empty() || !opened.front()) {
                    done(AppError(QStringLiteral("Le menu audio n’a pas répondu.")));
                    return;
                }
                done(bounded(opened.front()));
            });
        });
    });
}

void NativeAudioSetup::choose(const QString& name, bool input, Done done)
{
    audioMenu([name, input, done = std::move(done)](Result<AccessibilityElementPtr> opened) {
        if (!opened) {
            done(opened.error());
            return;
        }
        AccessibilityElement& menu = *opened.value();
        const AccessibilityElementPtr item = firstTitled(section(menu, input), name);
        if (!item) {
            menu.cancel();
            done(AppError(QStringLiteral("Téléphone ne propose pas encore « ") + name +
                          QStringLiteral(" ». Redémarrez le Mac après installation du pilote.")));
            return;
        }
        const bool pressed = item->press();
        menu.cancel();
        if (!pressed) {
            done(AppError(QStringLiteral("La sélection audio dans Téléphone a échoué.")));
            return;
        }
        done(std::nullopt);
    });
}

void NativeAudioSetup::prepare(Done done)
{
    audioMenu([this, done = std::move(done)](Result<AccessibilityElementPtr> opened) {
        if (!opened) {
            done(opened.error());
            return;
        }
        AccessibilityElement& menu = *opened.value();
        const std::vector<AccessibilityElementPtr> inputs = section(menu, true);
        const std::vector<AccessibilityElementPtr> outputs = section(menu, false);
        const QString previousInput = firstSelectedTitle(inputs);
        const QString previousOutput = firstSelectedTitle(outputs);
        if (!firstTitled(inputs, inputDeviceName()) || !firstTitled(outputs, outputDeviceName())) {
            menu.cancel();
            done(AppError(QStringLiteral(
                "Les deux périphériques Vemira ne sont pas visibles dans Téléphone. Installez le "
                "module audio puis redémarrez le Mac.")));
            return;
        }
        menu.cancel();
        // Kept as read, even when they already name our devices.
        if (!previousInput.isEmpty() && storePreviousInput)
            storePreviousInput(previousInput);
        if (!previousOutput.isEmpty() && storePreviousOutput)
            storePreviousOutput(previousOutput);
        choose(inputDeviceName(), true,
               [this, previousInput, previousOutput, done = std::move(done)](Status failed) {
                   if (failed) {
                       done(failed);
                       return;
                   }
                   choose(outputDeviceName(), false,
                          [this, previousInput, previousOutput,
                           done = std::move(done)](Status failed) {
                              if (failed) {
                                  done(failed);
                                  return;
                              }
                              confirm(previousInput, previousOutput, std::move(done));
                          });
               });
    });
}

void NativeAudioSetup::confirm(const QString& previousInput, const QString& previousOutput,
                               Done done)
{
    audioMenu([this, previousInput, previousOutput,
               done = std::move(done)](Result<AccessibilityElementPtr> opened) {
        const AppError unconfirmed(QStringLiteral(
            "Les périphériques ont été sélectionnés, mais macOS n’expose pas leur état de "
            "confirmation. Vérifiez le menu Vidéo de Téléphone avant le premier appel."));
        if (!opened) {
            rollback(unconfirmed, previousInput, previousOutput, std::move(done));
            return;
        }
        AccessibilityElement& menu = *opened.value();
        const AccessibilityElementPtr input = firstTitled(section(menu, true), inputDeviceName());
        const AccessibilityElementPtr output =
            firstTitled(section(menu, false), outputDeviceName());
        const bool confirmed = input && selected(*input) && output && selected(*output);
        menu.cancel();
        if (confirmed) {
            done(std::nullopt);
            return;
        }
        // An unconfirmed routing is never left in place, although the devices were chosen.
        rollback(unconfirmed, previousInput, previousOutput, std::move(done));
    });
}

void NativeAudioSetup::rollback(AppError error, const QString& previousInput,
                                const QString& previousOutput, Done done)
{
    auto restoreOutput = [this, error, previousOutput, done](Status) {
        if (previousOutput.isEmpty()) {
            done(error);
            return;
        }
        choose(previousOutput, false, [error, done](Status) { done(error); });
    };
    if (previousInput.isEmpty()) {
        restoreOutput(std::nullopt);
        return;
    }
    choose(previousInput, true, std::move(restoreOutput));
}

void NativeAudioSetup::useSystemAudio(Done done)
{
    systemAudioPass(true, [this, done = std::move(done)](Status failed) {
        if (failed) {
            done(failed);
            return;
        }
        systemAudioPass(false, std::move(done));
    });
}

void NativeAudioSetup::systemAudioPass(bool input, Done done)
{
    audioMenu([input, done = std::move(done)](Result<AccessibilityElementPtr> opened) {
        if (!opened) {
            done(opened.error());
            return;
        }
        AccessibilityElement& menu = *opened.value();
        AccessibilityElementPtr item;
        for (const AccessibilityElementPtr& candidate : section(menu, input)) {
            if (isSystemSettingItem(normalizedLabel(title(*candidate)))) {
                item = candidate;
                break;
            }
        }
        if (!item) {
            menu.cancel();
            done(AppError(QStringLiteral(
                "Choisissez Utiliser le réglage système dans le menu Vidéo de Téléphone.")));
            return;
        }
        const bool pressed = item->press();
        menu.cancel();
        if (!pressed) {
            done(AppError(QStringLiteral("Le retour au son système n’a pas été confirmé.")));
            return;
        }
        done(std::nullopt);
    });
}

} // namespace vemira
