#include "audio/CoreAudioRules.h"

#include <QtTest>

using namespace Qt::StringLiterals;
using namespace vemira;
using namespace vemira::coreaudio;

// The Core Audio backend's decisions, taken without a Mac.
class CoreAudioRulesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void notificationsWithoutChangeKeepTheUnitsRunning()
    {
        const DeviceState opened{true, {48000, 2}};
        // Another program wrote the same rate, or the stream list was published again.
        QVERIFY(!deviceChanged(opened, opened));
        QVERIFY(deviceChanged(opened, {true, {44100, 2}}));
        QVERIFY(deviceChanged(opened, {true, {48000, 1}}));
        QVERIFY(deviceChanged(opened, {false, {48000, 2}}));
        // Gone devices read as unusable: that is a change too.
        QVERIFY(deviceChanged(opened, {false, {}}));
    }

    void voiceProcessingAsksForMonoAtTheDeviceRate()
    {
        QCOMPARE(voiceProcessingFormat({48000, 2}), (DeviceFormat{48000, 1}));
        QCOMPARE(voiceProcessingFormat({44100, 6}), (DeviceFormat{44100, 1}));
        QVERIFY(!voiceProcessingFormat({0, 2}).isUsable());
        QVERIFY(!voiceProcessingFormat({48000, 0}).isUsable());
    }

    void statusCodesBecomeSentences()
    {
        QCOMPARE(startFailure(kBadDeviceStatus).message(), u"Périphérique audio indisponible."_s);
        QCOMPARE(startFailure(kPermissionsStatus).message(),
                 u"Un autre programme garde le périphérique audio pour lui seul. "
                 u"Fermez-le, puis réessayez."_s);
        QCOMPARE(startFailure(-50).message(), u"Le son du Mac n’a pas pu démarrer (-50)."_s);
        QCOMPARE(echoFailure(-10875).message(),
                 u"Impossible d’activer l’annulation d’écho du Mac (-10875)."_s);
        QCOMPARE(echoFailure(kBadDeviceStatus).message(), u"Périphérique audio indisponible."_s);
    }

    void onlyARefusedSettingIsPassedOver()
    {
        for (const std::int32_t refused :
             {kInvalidPropertyStatus, kPropertyNotWritableStatus, kInvalidScopeStatus,
              kInvalidElementStatus, kInvalidPropertyValueStatus})
            QVERIFY(isRefusedSetting(refused));
        // A unit that failed, a device gone, a bad parameter: the set-up stops there.
        for (const std::int32_t failure : {-50, -10875, kBadDeviceStatus, kPermissionsStatus})
            QVERIFY(!isRefusedSetting(failure));
    }
};

QTEST_GUILESS_MAIN(CoreAudioRulesTest)
#include "tst_coreaudio_rules.moc"
