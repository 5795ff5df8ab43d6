// Model of <CoreAudio/CoreAudio.h>: the parts of CoreAudioTypes/CoreAudioBaseTypes.h,
// AudioHardwareBase.h and AudioHardware.h that the macOS backends use.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#include <MacTypes.h>
#include <dispatch/dispatch.h>

#pragma clang assume_nonnull begin
#ifdef __cplusplus
extern "C" {
#endif

// CoreAudioBaseTypes.h
typedef UInt32 AudioFormatID;
typedef UInt32 AudioFormatFlags;
struct AudioStreamBasicDescription {
    Float64 mSampleRate;
    AudioFormatID mFormatID;
    AudioFormatFlags mFormatFlags;
    UInt32 mBytesPerPacket;
    UInt32 mFramesPerPacket;
    UInt32 mBytesPerFrame;
    UInt32 mChannelsPerFrame;
    UInt32 mBitsPerChannel;
    UInt32 mReserved;
};
typedef struct AudioStreamBasicDescription AudioStreamBasicDescription;
enum : AudioFormatID { kAudioFormatLinearPCM = 'lpcm' };
enum : AudioFormatFlags {
    kAudioFormatFlagIsFloat = (1U << 0),
    kAudioFormatFlagIsPacked = (1U << 3),
    kAudioFormatFlagIsNonInterleaved = (1U << 5),
};
struct AudioBuffer {
    UInt32 mNumberChannels;
    UInt32 mDataByteSize;
    void* _Nullable mData;
};
typedef struct AudioBuffer AudioBuffer;
struct AudioBufferList {
    UInt32 mNumberBuffers;
    AudioBuffer mBuffers[1];
};
typedef struct AudioBufferList AudioBufferList;
// Only ever handed through by pointer here; its fields stay undeclared on purpose.
struct AudioTimeStamp;
typedef struct AudioTimeStamp AudioTimeStamp;

// AudioHardwareBase.h
typedef UInt32 AudioObjectID;
typedef UInt32 AudioObjectPropertySelector;
typedef UInt32 AudioObjectPropertyScope;
typedef UInt32 AudioObjectPropertyElement;
struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector;
    AudioObjectPropertyScope mScope;
    AudioObjectPropertyElement mElement;
};
typedef struct AudioObjectPropertyAddress AudioObjectPropertyAddress;
enum : AudioObjectID { kAudioObjectUnknown = 0 };
enum : AudioObjectPropertyScope {
    kAudioObjectPropertyScopeGlobal = 'glob',
    kAudioObjectPropertyScopeInput = 'inpt',
    kAudioObjectPropertyScopeOutput = 'outp',
    kAudioObjectPropertyScopeWildcard = '****',
};
enum : AudioObjectPropertyElement {
    kAudioObjectPropertyElementMain = 0,
    kAudioObjectPropertyElementWildcard = 0xFFFFFFFF,
};
// Each group of constants is its own anonymous enumeration, as in the framework headers: two
// constants of different groups have different types (a braced list mixing them does not
// deduce).
// AudioObject properties
enum : AudioObjectPropertySelector { kAudioObjectPropertyName = 'lnam' };
// AudioDevice properties
enum : AudioObjectPropertySelector {
    kAudioDevicePropertyDeviceUID = 'uid ',
    kAudioDevicePropertyTransportType = 'tran',
    kAudioDevicePropertyDeviceIsAlive = 'livn',
    kAudioDevicePropertyStreams = 'stm#',
    kAudioDevicePropertyNominalSampleRate = 'nsrt',
};
// Transport types
enum : UInt32 { kAudioDeviceTransportTypeBuiltIn = 'bltn' };

// AudioHardware.h
enum : AudioObjectID { kAudioObjectSystemObject = 1 };
// AudioSystemObject properties
enum : AudioObjectPropertySelector {
    kAudioHardwarePropertyDevices = 'dev#',
    kAudioHardwarePropertyDefaultInputDevice = 'dIn ',
    kAudioHardwarePropertyDefaultOutputDevice = 'dOut',
};
// AudioDevice properties
enum : AudioObjectPropertySelector { kAudioDevicePropertyStreamConfiguration = 'slay' };
typedef void (^AudioObjectPropertyListenerBlock)(UInt32 inNumberAddresses,
                                                 const AudioObjectPropertyAddress* inAddresses);
OSStatus AudioObjectGetPropertyDataSize(AudioObjectID inObjectID,
                                        const AudioObjectPropertyAddress* inAddress,
                                        UInt32 inQualifierDataSize,
                                        const void* _Nullable inQualifierData, UInt32* outDataSize);
OSStatus AudioObjectGetPropertyData(AudioObjectID inObjectID,
                                    const AudioObjectPropertyAddress* inAddress,
                                    UInt32 inQualifierDataSize,
                                    const void* _Nullable inQualifierData, UInt32* ioDataSize,
                                    void* outData);
OSStatus AudioObjectSetPropertyData(AudioObjectID inObjectID,
                                    const AudioObjectPropertyAddress* inAddress,
                                    UInt32 inQualifierDataSize,
                                    const void* _Nullable inQualifierData, UInt32 inDataSize,
                                    const void* inData);
OSStatus AudioObjectAddPropertyListenerBlock(AudioObjectID inObjectID,
                                             const AudioObjectPropertyAddress* inAddress,
                                             dispatch_queue_t _Nullable inDispatchQueue,
                                             AudioObjectPropertyListenerBlock inListener);
OSStatus AudioObjectRemovePropertyListenerBlock(AudioObjectID inObjectID,
                                                const AudioObjectPropertyAddress* inAddress,
                                                dispatch_queue_t _Nullable inDispatchQueue,
                                                AudioObjectPropertyListenerBlock inListener);

#ifdef __cplusplus
}
#endif
#pragma clang assume_nonnull end
