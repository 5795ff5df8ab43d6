#include "app/AppDependencies.h"
#include "records/DataFolder.h"

namespace vemira {

AppDependencies createPlatformDependencies()
{
    AppDependencies deps;
    deps.audioSystem = createPlatformAudioSystem();
    deps.deviceIO = createPlatformAudioDeviceIO();
    deps.accessibility = createPlatformAccessibility();
    deps.phoneApplications = searchedPhoneApplications();
    deps.phoneApplication = phoneApplicationId();
    deps.phoneRouting = createPlatformPhoneAudioRouting();
    deps.workspace = createPlatformWorkspace();
    deps.sleepNotifier = createPlatformSleepNotifier();
    deps.notifier = createPlatformDesktopNotifier();
    deps.dataFolder = DataFolder::standard().path();
    // Clipboard and save dialogs need the widgets: the application window supplies them.
    return deps;
}

} // namespace vemira
