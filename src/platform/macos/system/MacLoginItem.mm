// The login item on macOS 13 and later: the application itself, registered with
// SMAppService, which the user sees (and may refuse) in System Settings. Compiled with ARC.

#include "app/SystemServices.h"

#import <ServiceManagement/ServiceManagement.h>

namespace vemira {

namespace {

class MacLoginItem final : public LoginItem {
public:
    Result<bool> enabled() const override
    {
        return SMAppService.mainAppService.status == SMAppServiceStatusEnabled;
    }

    Status setEnabled(bool enabled) override
    {
        SMAppService* service = SMAppService.mainAppService;
        NSError* error = nil;
        const BOOL done = enabled ? [service registerAndReturnError:&error]
                                  : [service unregisterAndReturnError:&error];
        if (!done) {
            return AppError::withStatus(
                QStringLiteral("Le lancement à l’ouverture de session n’a pas pu être ") +
                    (enabled ? QStringLiteral("activé") : QStringLiteral("désactivé")) +
                    QStringLiteral(" : ") + QString::fromNSString(error.localizedDescription),
                error.code);
        }
        if (enabled && service.status == SMAppServiceStatusRequiresApproval) {
            [SMAppService openSystemSettingsLoginItems];
            return AppError(QStringLiteral("Autorisez Vemira dans Réglages Système, Général, "
                                           "Ouverture : le Mac demande votre accord."));
        }
        return std::nullopt;
    }

    QString where() const override
    {
        return QStringLiteral("Réglages Système › Général › Ouverture");
    }
};

} // namespace

std::unique_ptr<LoginItem> createPlatformLoginItem()
{
    return std::make_unique<MacLoginItem>();
}

} // namespace vemira
