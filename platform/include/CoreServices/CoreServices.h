/* Multiprocessing Services and the Process Manager. */
#ifndef __CORESERVICES__
#define __CORESERVICES__

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Multiprocessing Services ---- */
typedef struct OpaqueMPSemaphoreID* MPSemaphoreID;
typedef ItemCount MPSemaphoreCount;

/* Durations: positive values are milliseconds, negative values microseconds. */
enum { kDurationImmediate = 0, kDurationForever = 0x7FFFFFFF };

OSStatus MPCreateSemaphore(MPSemaphoreCount maximumValue, MPSemaphoreCount initialValue,
                           MPSemaphoreID* semaphore);
OSStatus MPDeleteSemaphore(MPSemaphoreID semaphore);
OSStatus MPSignalSemaphore(MPSemaphoreID semaphore);
OSStatus MPWaitOnSemaphore(MPSemaphoreID semaphore, Duration timeout);
void MPYield(void);

/* ---- Process Manager ---- */
#pragma pack(push, 2)
typedef struct ProcessSerialNumber {
    UInt32 highLongOfPSN;
    UInt32 lowLongOfPSN;
} ProcessSerialNumber;

typedef struct FSRef FSRef;
typedef FSRef* FSRefPtr;

typedef struct ProcessInfoRec {
    UInt32 processInfoLength;
    StringPtr processName;
    ProcessSerialNumber processNumber;
    UInt32 processType;
    OSType processSignature;
    UInt32 processMode;
    Ptr processLocation;
    UInt32 processSize;
    UInt32 processFreeMem;
    ProcessSerialNumber processLauncher;
    UInt32 processLaunchDate;
    UInt32 processActiveTime;
    FSRefPtr processAppRef;
} ProcessInfoRec;
#pragma pack(pop)

enum { kNoProcess = 0, kSystemProcess = 1, kCurrentProcess = 2 };

OSErr GetNextProcess(ProcessSerialNumber* PSN);
/* processName, when not null, receives up to 255 bytes of name after a length
 * byte; processNumber, processType ('APPL') and processSignature ('????') are set and
 * the other fields zero. processAppRef is not filled. */
OSErr GetProcessInformation(const ProcessSerialNumber* PSN, ProcessInfoRec* info);

#ifdef __cplusplus
}
#endif

#endif
