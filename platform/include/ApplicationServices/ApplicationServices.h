/* The CoreGraphics subset the launcher uses: data providers and PNG images. */
#ifndef __APPLICATIONSERVICES__
#define __APPLICATIONSERVICES__

#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CGDataProvider* CGDataProviderRef;
typedef struct CGImage* CGImageRef;

typedef enum { kCGRenderingIntentDefault = 0 } CGColorRenderingIntent;

CGDataProviderRef CGDataProviderCreateWithURL(CFURLRef url);
void CGDataProviderRelease(CGDataProviderRef provider);
/* The launcher gives no decode array; one given is not applied. */
CGImageRef CGImageCreateWithPNGDataProvider(CGDataProviderRef source, const CGFloat* decode,
                                            bool shouldInterpolate, CGColorRenderingIntent intent);
size_t CGImageGetWidth(CGImageRef image);
size_t CGImageGetHeight(CGImageRef image);
void CGImageRelease(CGImageRef image);

#ifdef __cplusplus
}
#endif

#endif
