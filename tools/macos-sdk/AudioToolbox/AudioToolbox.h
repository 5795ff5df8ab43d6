// Model of <AudioToolbox/AudioToolbox.h>: the parts of AudioComponent.h, AUComponent.h,
// AudioOutputUnit.h and AudioUnitProperties.h that the macOS backends use.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#include <CoreAudio/CoreAudio.h>

#pragma clang assume_nonnull begin
#ifdef __cplusplus
extern "C" {
#endif

// AudioComponent.h
typedef struct OpaqueAudioComponent* AudioComponent;
typedef struct ComponentInstanceRecord* AudioComponentInstance;
struct AudioComponentDescription {
    OSType componentType;
    OSType componentSubType;
    OSType componentManufacturer;
    UInt32 componentFlags;
    UInt32 componentFlagsMask;
};
typedef struct AudioComponentDescription AudioComponentDescription;
AudioComponent _Nullable AudioComponentFindNext(AudioComponent _Nullable inComponent,
                                                const AudioComponentDescription* inDesc);
OSStatus AudioComponentInstanceNew(AudioComponent inComponent,
                                   AudioComponentInstance _Nullable* _Nonnull outInstance);
OSStatus AudioComponentInstanceDispose(AudioComponentInstance _Nullable inInstance);

// AUComponent.h
typedef AudioComponentInstance AudioUnit;
typedef UInt32 AudioUnitPropertyID;
typedef UInt32 AudioUnitScope;
typedef UInt32 AudioUnitElement;
typedef UInt32 AudioUnitRenderActionFlags;
// Each group of constants is its own anonymous enumeration, as in the framework headers.
// Audio unit types
enum : UInt32 { kAudioUnitType_Output = 'auou' };
// Output unit subtypes, then the macOS-only ones
enum : UInt32 { kAudioUnitSubType_VoiceProcessingIO = 'vpio' };
enum : UInt32 { kAudioUnitSubType_HALOutput = 'ahal' };
// Manufacturers
enum : UInt32 { kAudioUnitManufacturer_Apple = 'appl' };
enum : OSStatus { kAudioUnitErr_InvalidProperty = -10879 };
typedef OSStatus (*AURenderCallback)(void* inRefCon, AudioUnitRenderActionFlags* ioActionFlags,
                                     const AudioTimeStamp* inTimeStamp, UInt32 inBusNumber,
                                     UInt32 inNumberFrames, AudioBufferList* _Nullable ioData);
OSStatus AudioUnitInitialize(AudioUnit inUnit);
OSStatus AudioUnitUninitialize(AudioUnit inUnit);
OSStatus AudioUnitGetProperty(AudioUnit inUnit, AudioUnitPropertyID inID, AudioUnitScope inScope,
                              AudioUnitElement inElement, void* outData, UInt32* ioDataSize);
OSStatus AudioUnitSetProperty(AudioUnit inUnit, AudioUnitPropertyID inID, AudioUnitScope inScope,
                              AudioUnitElement inElement, const void* _Nullable inData,
                              UInt32 inDataSize);
OSStatus AudioUnitRender(AudioUnit inUnit, AudioUnitRenderActionFlags* _Nullable ioActionFlags,
                         const AudioTimeStamp* inTimeStamp, UInt32 inOutputBusNumber,
                         UInt32 inNumberFrames, AudioBufferList* ioData);

// AudioOutputUnit.h
OSStatus AudioOutputUnitStart(AudioUnit ci);
OSStatus AudioOutputUnitStop(AudioUnit ci);

// AudioUnitProperties.h
enum : AudioUnitScope {
    kAudioUnitScope_Global = 0,
    kAudioUnitScope_Input = 1,
    kAudioUnitScope_Output = 2,
};
// Audio unit properties
enum : AudioUnitPropertyID {
    kAudioUnitProperty_StreamFormat = 8,
    kAudioUnitProperty_MaximumFramesPerSlice = 14,
    kAudioUnitProperty_SetRenderCallback = 23,
};
// Output unit properties
enum : AudioUnitPropertyID {
    kAudioOutputUnitProperty_CurrentDevice = 2000,
    kAudioOutputUnitProperty_EnableIO = 2003,
    kAudioOutputUnitProperty_SetInputCallback = 2005,
};
// Voice-processing I/O properties, then the one added in macOS 14
enum : AudioUnitPropertyID {
    kAUVoiceIOProperty_BypassVoiceProcessing = 2100,
    kAUVoiceIOProperty_VoiceProcessingEnableAGC = 2101,
    kAUVoiceIOProperty_MuteOutput = 2104,
};
enum : AudioUnitPropertyID { kAUVoiceIOProperty_OtherAudioDuckingConfiguration = 2108 };
struct AURenderCallbackStruct {
    AURenderCallback _Nullable inputProc;
    void* _Nullable inputProcRefCon;
};
typedef struct AURenderCallbackStruct AURenderCallbackStruct;
typedef enum AUVoiceIOOtherAudioDuckingLevel : UInt32 AUVoiceIOOtherAudioDuckingLevel;
enum AUVoiceIOOtherAudioDuckingLevel : UInt32 {
    kAUVoiceIOOtherAudioDuckingLevelDefault = 0,
    kAUVoiceIOOtherAudioDuckingLevelMin = 10,
    kAUVoiceIOOtherAudioDuckingLevelMid = 20,
    kAUVoiceIOOtherAudioDuckingLevelMax = 30,
};
struct AUVoiceIOOtherAudioDuckingConfiguration {
    Boolean mEnableAdvancedDucking;
    AUVoiceIOOtherAudioDuckingLevel mDuckingLevel;
};
typedef struct AUVoiceIOOtherAudioDuckingConfiguration AUVoiceIOOtherAudioDuckingConfiguration;

#ifdef __cplusplus
}
#endif
#pragma clang assume_nonnull end
