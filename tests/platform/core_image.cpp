/* CoreGraphics: data providers from files and PNG decoding into RGBA. */
#include <ApplicationServices/ApplicationServices.h>
#include <PlatformTesting.h>

#include "PlatBackend.h"
#include "core_testutil.h"

#include <gtest/gtest.h>

#include <cstring>
#include <png.h>
#include <vector>

namespace {

/* A PNG made by libpng from pixels in the given format. */
std::string EncodePNG(const std::vector<unsigned char>& pixels, unsigned width, unsigned height,
                      png_uint_32 format) {
    png_image image;
    memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = format;
    png_alloc_size_t size = 0;
    EXPECT_TRUE(png_image_write_to_memory(&image, nullptr, &size, 0, pixels.data(), 0, nullptr));
    std::string bytes(size, '\0');
    EXPECT_TRUE(png_image_write_to_memory(&image, bytes.data(), &size, 0, pixels.data(), 0, nullptr));
    bytes.resize(size);
    return bytes;
}

/* Decodes the file at path; empty when there is no provider or no image. */
struct Decoded {
    bool provider = false;
    bool image = false;
    size_t width = 0, height = 0;
    std::vector<unsigned char> rgba;
};

Decoded Decode(const std::string& path, const CGFloat* decode = nullptr) {
    Decoded result;
    CFURLRef url = MakeFileURL(path);
    CGDataProviderRef provider = CGDataProviderCreateWithURL(url);
    CFRelease(url);
    if (provider == nullptr)
        return result;
    result.provider = true;
    CGImageRef image = CGImageCreateWithPNGDataProvider(provider, decode, false, kCGRenderingIntentDefault);
    CGDataProviderRelease(provider);
    if (image == nullptr)
        return result;
    result.image = true;
    result.width = CGImageGetWidth(image);
    result.height = CGImageGetHeight(image);
    const unsigned char* rgba = PlatCGImageGetRGBA(image);
    if (rgba != nullptr)
        result.rgba.assign(rgba, rgba + result.width * result.height * 4);
    CGImageRelease(image);
    return result;
}

TEST(PNGImage, DecodesIntoRGBA) {
    ScratchFolder folder;
    // Three by two, every pixel different, with partial transparency.
    std::vector<unsigned char> rgba = {255, 0,  0,  255, 0,   255, 0,  128, 0, 0, 255, 0,
                                       10,  20, 30, 40,  200, 100, 50, 255, 1, 2, 3,   4};
    WriteFile(folder.path() + "/rgba.png", EncodePNG(rgba, 3, 2, PNG_FORMAT_RGBA));
    Decoded picture = Decode(folder.path() + "/rgba.png");
    ASSERT_TRUE(picture.image);
    EXPECT_EQ(picture.width, 3u);
    EXPECT_EQ(picture.height, 2u);
    EXPECT_EQ(picture.rgba, rgba);

    // No alpha channel: opaque. Grey: the same value in all three colours.
    std::vector<unsigned char> rgb = {9, 8, 7, 6, 5, 4};
    WriteFile(folder.path() + "/rgb.png", EncodePNG(rgb, 1, 2, PNG_FORMAT_RGB));
    picture = Decode(folder.path() + "/rgb.png");
    EXPECT_EQ(picture.rgba, (std::vector<unsigned char>{9, 8, 7, 255, 6, 5, 4, 255}));
    std::vector<unsigned char> grey = {0, 77, 255};
    WriteFile(folder.path() + "/grey.png", EncodePNG(grey, 3, 1, PNG_FORMAT_GRAY));
    picture = Decode(folder.path() + "/grey.png");
    EXPECT_EQ(picture.rgba, (std::vector<unsigned char>{0, 0, 0, 255, 77, 77, 77, 255, 255, 255, 255, 255}));

    // A decode array of {1, 0} per colour inverts the colours and leaves alpha.
    const CGFloat invert[] = {1, 0, 1, 0, 1, 0};
    picture = Decode(folder.path() + "/rgb.png", invert);
    EXPECT_EQ(picture.rgba, (std::vector<unsigned char>{246, 247, 248, 255, 249, 250, 251, 255}));
}

TEST(PNGImage, BadFilesGiveNoImage) {
    ScratchFolder folder;
    std::vector<unsigned char> pixels(16 * 16 * 4);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<unsigned char>(i * 7);
    std::string good = EncodePNG(pixels, 16, 16, PNG_FORMAT_RGBA);
    ASSERT_GT(good.size(), 60u);

    std::string corrupt = good;
    size_t data = corrupt.find("IDAT");
    ASSERT_NE(data, std::string::npos);
    corrupt[data + 8] ^= 0x55; // inside the compressed pixels: the chunk's check sum fails
    struct {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"text", "This is not a picture.\n"},
        {"empty", ""},
        {"signature only", good.substr(0, 8)},
        {"cut after the header", good.substr(0, 33)},
        {"cut in the pixels", good.substr(0, good.size() / 2)},
        {"cut in the last pixel chunk's check sum", good.substr(0, good.size() - 13)},
        {"corrupt pixels", corrupt},
    };
    for (const auto& c : cases) {
        WriteFile(folder.path() + "/bad.png", c.bytes);
        Decoded picture = Decode(folder.path() + "/bad.png");
        EXPECT_TRUE(picture.provider) << c.what << ": the file itself reads";
        EXPECT_FALSE(picture.image) << c.what;
    }

    EXPECT_FALSE(Decode(folder.path() + "/absent.png").provider);
    EXPECT_FALSE(Decode(folder.path()).provider) << "a folder";
    EXPECT_EQ(CGDataProviderCreateWithURL(nullptr), nullptr);
    EXPECT_EQ(CGImageCreateWithPNGDataProvider(nullptr, nullptr, false, kCGRenderingIntentDefault), nullptr);
    EXPECT_EQ(CGImageGetWidth(nullptr), 0u);
    EXPECT_EQ(PlatCGImageGetRGBA(nullptr), nullptr);
    CGImageRelease(nullptr);
    CGDataProviderRelease(nullptr);
}

} // namespace
