/* Basic Mac OS X types, with the sizes they have in the 64-bit Mac layout. */
#ifndef __MACTYPES__
#define __MACTYPES__

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t UInt8;
typedef int8_t SInt8;
typedef uint16_t UInt16;
typedef int16_t SInt16;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef unsigned long long UInt64;
typedef long long SInt64;
typedef unsigned char Boolean;
typedef SInt32 OSStatus;
typedef SInt16 OSErr;
typedef UInt32 FourCharCode;
typedef FourCharCode OSType;
typedef FourCharCode ResType;
typedef unsigned long ByteCount;
typedef unsigned long ItemCount;
typedef long Size;
typedef char* Ptr;
typedef unsigned char Str255[256];
typedef unsigned char* StringPtr;
typedef UInt16 UniChar;
typedef SInt32 Duration;
typedef double CGFloat;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

enum { noErr = 0 };

/* Error codes of the Mac OS X interfaces this layer provides. */
enum {
    paramErr = -50,
    fnfErr = -43,
    procNotFound = -600,
    errInvalidWindowPtr = -5600,
    errInvalidWindowRef = -5600,
    eventAlreadyPostedErr = -9860,
    eventClassInvalidErr = -9862,
    eventClassIncorrectErr = -9864,
    eventHandlerAlreadyInstalledErr = -9866,
    eventInternalErr = -9868,
    eventParameterNotFoundErr = -9870,
    eventNotHandledErr = -9874,
    errUnknownControl = -30584,
    errDataSizeMismatch = -30591,
    kIBCarbonRuntimeCantFindNibFile = -10960,
    kIBCarbonRuntimeObjectNotOfRequestedType = -10961,
    kIBCarbonRuntimeCantFindObject = -10962,
    kMPTimeoutErr = -29296,
    kMPDeletedErr = -29295,
    kMPInsufficientResourcesErr = -29298,
    kMPInvalidIDErr = -29299
};

#ifdef __cplusplus
}
#endif

#endif
