// The workspace and the sleep and wake notifications through AppKit; the capture permission
// through AVFoundation. Compiled with ARC.

#include "app/SystemServices.h"

#import <AVFoundation/AVFoundation.h>
#import <AppKit/AppKit.h>

namespace vemira {

namespace {

NSString* toNSString(const QString& text)
{
    return text.toNSString();
}

class MacWorkspace final : public Workspace {
public:
    bool openUrl(const QUrl& url) override
    {
        NSURL* address = [NSURL URLWithString:toNSString(url.toString(QUrl::FullyEncoded))];
        if (address == nil)
            return false;
        return [[NSWorkspace sharedWorkspace] openURL:address];
    }

    void revealFile(const QString& path) override
    {
        NSURL* file = [NSURL fileURLWithPath:toNSString(path)];
        [[NSWorkspace sharedWorkspace] activateFileViewerSelectingURLs:@[ file ]];
    }

    bool microphoneAuthorized() const override
    {
        return [AVCaptureDevice authorizationStatusForMediaType:AVMediaTypeAudio] ==
               AVAuthorizationStatusAuthorized;
    }
};

// Delivered on the main queue, so the model is touched on the main thread only.
class MacSleepNotifier final : public SleepNotifier {
public:
    MacSleepNotifier()
    {
        NSNotificationCenter* center = [[NSWorkspace sharedWorkspace] notificationCenter];
        MacSleepNotifier* owner = this;
        m_sleepObserver = [center addObserverForName:NSWorkspaceWillSleepNotification
                                              object:nil
                                               queue:[NSOperationQueue mainQueue]
                                          usingBlock:^(NSNotification*) {
                                            if (owner->onWillSleep)
                                                owner->onWillSleep();
                                          }];
        // On wake the receptionist re-checks its circuit and arms again.
        m_wakeObserver = [center addObserverForName:NSWorkspaceDidWakeNotification
                                             object:nil
                                              queue:[NSOperationQueue mainQueue]
                                         usingBlock:^(NSNotification*) {
                                           if (owner->onWoke)
                                               owner->onWoke();
                                         }];
        // Log out, restart or shut down: the call under way is ended and saved first.
        m_powerOffObserver = [center addObserverForName:NSWorkspaceWillPowerOffNotification
                                                 object:nil
                                                  queue:[NSOperationQueue mainQueue]
                                             usingBlock:^(NSNotification*) {
                                               if (owner->onWillPowerOff)
                                                   owner->onWillPowerOff();
                                             }];
    }

    ~MacSleepNotifier() override
    {
        NSNotificationCenter* center = [[NSWorkspace sharedWorkspace] notificationCenter];
        if (m_sleepObserver != nil)
            [center removeObserver:m_sleepObserver];
        if (m_wakeObserver != nil)
            [center removeObserver:m_wakeObserver];
        if (m_powerOffObserver != nil)
            [center removeObserver:m_powerOffObserver];
    }

private:
    id<NSObject> m_sleepObserver = nil;
    id<NSObject> m_wakeObserver = nil;
    id<NSObject> m_powerOffObserver = nil;
};

} // namespace

std::unique_ptr<Workspace> createPlatformWorkspace()
{
    return std::make_unique<MacWorkspace>();
}

std::unique_ptr<SleepNotifier> createPlatformSleepNotifier()
{
    return std::make_unique<MacSleepNotifier>();
}

} // namespace vemira
