/* CoreGraphics data providers (a file's bytes) and PNG images decoded into 8-bit
 * RGBA rows. Both are CoreFoundation objects, so CFRelease works on them too. */
#include <ApplicationServices/ApplicationServices.h>

#include "cf/PlatCF.h"
#include "backends/PlatBackend.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <png.h>
#include <vector>

namespace {

/* Larger files or pictures are refused rather than exhausting memory on a bad header. */
constexpr size_t kMaxProviderBytes = 256u << 20;

constexpr size_t kMaxImageBytes = 256u << 20;

} // namespace

struct CGDataProvider {
    PlatCFBase base;
    std::vector<unsigned char> bytes;
};

struct CGImage {
    PlatCFBase base;
    size_t width = 0, height = 0;
    unsigned char* rgba = nullptr; /* width * 4 bytes per row, malloc'd */
    ~CGImage() { free(rgba); }
};

namespace {

using ProviderKind = PlatCFKind<CGDataProvider>;
using ImageKind = PlatCFKind<CGImage>;

} // namespace

CGDataProviderRef CGDataProviderCreateWithURL(CFURLRef url) {
    const std::string* path = PlatCFURLPath(url);
    if (path == nullptr) {
        return nullptr;
    }
    std::string bytes;
    if (!PlatCFReadRegularFile(*path, kMaxProviderBytes, bytes)) {
        return nullptr;
    }
    CGDataProvider* provider = ProviderKind::New();
    provider->bytes.assign(bytes.begin(), bytes.end());
    return provider;
}

void CGDataProviderRelease(CGDataProviderRef provider) {
    if (provider != nullptr) {
        CFRelease(provider);
    }
}

CGImageRef CGImageCreateWithPNGDataProvider(CGDataProviderRef source, const CGFloat*, bool,
                                            CGColorRenderingIntent) {
    const CGDataProvider* provider = ProviderKind::Cast(source);
    if (provider == nullptr || provider->bytes.size() < 8 || png_sig_cmp(provider->bytes.data(), 0, 8) != 0) {
        return nullptr;
    }

    /* The simplified reader keeps libpng's error jumps to itself: a corrupt or cut
     * file just makes a call answer zero. */
    png_image png;
    memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&png, provider->bytes.data(), provider->bytes.size())) {
        return nullptr;
    }
    png.format = PNG_FORMAT_RGBA;
    size_t size = PNG_IMAGE_SIZE(png);
    if (png.width == 0 || png.height == 0 || size / 4 / png.width != png.height || size > kMaxImageBytes) {
        png_image_free(&png);
        return nullptr;
    }
    auto* rgba = static_cast<unsigned char*>(malloc(size));
    if (rgba == nullptr) {
        png_image_free(&png);
        return nullptr;
    }
    if (!png_image_finish_read(&png, nullptr, rgba, 0, nullptr)) {
        png_image_free(&png);
        free(rgba);
        return nullptr;
    }
    CGImage* image = ImageKind::New();
    image->width = png.width;
    image->height = png.height;
    image->rgba = rgba;
    return image;
}

size_t CGImageGetWidth(CGImageRef image) {
    const CGImage* object = ImageKind::Cast(image);
    return object == nullptr ? 0 : object->width;
}

size_t CGImageGetHeight(CGImageRef image) {
    const CGImage* object = ImageKind::Cast(image);
    return object == nullptr ? 0 : object->height;
}

const unsigned char* PlatCGImageGetRGBA(CGImageRef image) {
    const CGImage* object = ImageKind::Cast(image);
    return object == nullptr ? nullptr : object->rgba;
}

void CGImageRelease(CGImageRef image) {
    if (image != nullptr) {
        CFRelease(image);
    }
}
