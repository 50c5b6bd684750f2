#include "overlay/ServerSetupCheck.h"

#include <cstring>
#include <limits>

namespace {

// The X protocol's setup reply, as far as it is read here: byte offsets into
// the reply, a screen's record, a depth's record and a visual's record.
constexpr size_t setupHeaderBytes = 8;
constexpr size_t setupLengthOffset = 6;
constexpr size_t setupFixedBytes = 40;
constexpr size_t vendorLengthOffset = 24;
constexpr size_t screenCountOffset = 28;
constexpr size_t formatCountOffset = 29;
constexpr uint8_t setupSucceeded = 1;

constexpr size_t formatBytes = 8;
constexpr size_t formatBitsPerPixelOffset = 1;
constexpr size_t formatScanlinePadOffset = 2;

constexpr size_t screenFixedBytes = 40;
constexpr size_t screenWidthOffset = 20;
constexpr size_t screenHeightOffset = 22;
constexpr size_t screenRootVisualOffset = 32;
constexpr size_t screenRootDepthOffset = 38;
constexpr size_t screenDepthCountOffset = 39;

constexpr size_t depthFixedBytes = 8;
constexpr size_t depthVisualCountOffset = 2;

constexpr size_t visualBytes = 24;
constexpr size_t visualBitsPerRgbOffset = 5;

template <typename T> T readAt(const uint8_t* data, size_t offset)
{
    T value;
    memcpy(&value, data + offset, sizeof(value));
    return value;
}

// Whether `count` records of `recordBytes` from `offset` end within `size`;
// moves `offset` past them when they do.
bool skipRecords(size_t& offset, size_t count, size_t recordBytes, size_t size)
{
    if (offset > size || count > (size - offset) / recordBytes) {
        return false;
    }
    offset += count * recordBytes;
    return true;
}

} // namespace

bool ServerSetupCheck::PixmapFormat::isUsable(uint8_t bitsPerPixel, uint8_t scanlinePad)
{
    const bool pixelSize = bitsPerPixel == 16 || bitsPerPixel == 24 || bitsPerPixel == 32;
    const bool pad = scanlinePad == 8 || scanlinePad == 16 || scanlinePad == 32;
    return pixelSize && pad;
}

std::optional<size_t> ServerSetupCheck::PixmapFormat::rowBytes(uint32_t width) const
{
    if (!isUsable(bitsPerPixel, scanlinePad)) {
        return std::nullopt;
    }
    constexpr size_t largest = std::numeric_limits<size_t>::max();
    if (width > (largest - scanlinePad) / bitsPerPixel) {
        return std::nullopt;
    }
    const size_t bits = static_cast<size_t>(width) * bitsPerPixel;
    const size_t paddedBits = (bits + scanlinePad - 1) / scanlinePad * scanlinePad;
    return paddedBits / 8;
}

std::optional<size_t> ServerSetupCheck::PixmapFormat::imageBytes(uint32_t width,
                                                                 uint32_t height) const
{
    const std::optional<size_t> row = rowBytes(width);
    if (!row || (height != 0 && *row > std::numeric_limits<size_t>::max() / height)) {
        return std::nullopt;
    }
    return *row * height;
}

ServerSetupCheck::ServerSetupCheck(const uint8_t* setup, size_t setupSize)
    : data(setup), size(setupSize)
{
    if (!data || size < setupFixedBytes || data[0] != setupSucceeded) {
        return;
    }
    // The reply's own length field bounds everything read from it.
    const size_t announced =
        setupHeaderBytes + 4 * static_cast<size_t>(readAt<uint16_t>(data, setupLengthOffset));
    if (announced < setupFixedBytes || announced > size) {
        return;
    }
    size = announced;

    const size_t vendorBytes = (readAt<uint16_t>(data, vendorLengthOffset) + 3u) & ~size_t{3};
    size_t offset = setupFixedBytes;
    if (!skipRecords(offset, vendorBytes, 1, size)) {
        return;
    }
    formatsOffset = offset;
    formatCount = data[formatCountOffset];
    if (!skipRecords(offset, formatCount, formatBytes, size)) {
        return;
    }
    const uint8_t screens = data[screenCountOffset];
    for (uint8_t screen = 0; screen < screens; ++screen) {
        if (!walkScreen(offset, screen == 0)) {
            return;
        }
    }
    if (screens == 0) {
        structure = Verdict::NO_SCREEN;
        return;
    }
    if (width == 0 || height == 0) {
        return;
    }
    if (rootVisualFound) {
        chooseFormat(data[screenOffset + screenRootDepthOffset]);
    }
    structure = Verdict::USABLE;
}

ServerSetupCheck::Verdict ServerSetupCheck::verdictAt(uint32_t screenWidth,
                                                      uint32_t screenHeight) const
{
    if (structure != Verdict::USABLE) {
        return structure;
    }
    if (!fitsMaximumSize(screenWidth, screenHeight)) {
        return Verdict::SCREEN_TOO_LARGE;
    }
    // Without a root visual the upload logs that it cannot tell the format.
    if (rootVisualFound && !format) {
        return Verdict::NO_PIXMAP_FORMAT;
    }
    return Verdict::USABLE;
}

bool ServerSetupCheck::walkScreen(size_t& offset, bool first)
{
    const size_t start = offset;
    if (!skipRecords(offset, 1, screenFixedBytes, size)) {
        return false;
    }
    const auto rootVisual = readAt<uint32_t>(data, start + screenRootVisualOffset);
    const uint8_t depths = data[start + screenDepthCountOffset];
    for (uint8_t depth = 0; depth < depths; ++depth) {
        const size_t depthStart = offset;
        if (!skipRecords(offset, 1, depthFixedBytes, size)) {
            return false;
        }
        const auto visuals = readAt<uint16_t>(data, depthStart + depthVisualCountOffset);
        for (uint16_t visual = 0; visual < visuals; ++visual) {
            const size_t visualStart = offset;
            if (!skipRecords(offset, 1, visualBytes, size)) {
                return false;
            }
            if (first && !rootVisualFound && readAt<uint32_t>(data, visualStart) == rootVisual) {
                rootVisualFound = true;
                rootVisualBitsPerRgb = data[visualStart + visualBitsPerRgbOffset];
            }
        }
    }
    if (first) {
        screenOffset = start;
        width = readAt<uint16_t>(data, start + screenWidthOffset);
        height = readAt<uint16_t>(data, start + screenHeightOffset);
    }
    return true;
}

void ServerSetupCheck::chooseFormat(uint8_t rootDepth)
{
    // A 16-bit screen takes RGB 5-6-5 in 16-bit pixels, anything else 8 bits a
    // colour in 32-bit pixels. Some servers (Xvfb) announce 8 bits per RGB
    // value on their 16-bit visual, so the screen's depth decides too.
    const bool sixteenBits =
        rootVisualBitsPerRgb == 5 || rootVisualBitsPerRgb == 6 || rootDepth == 16;
    const uint8_t depth = sixteenBits ? 16 : 24;
    const uint8_t bitsPerPixel = sixteenBits ? 16 : 32;
    for (uint8_t index = 0; index < formatCount; ++index) {
        const size_t start = formatsOffset + index * formatBytes;
        const uint8_t formatBitsPerPixel = data[start + formatBitsPerPixelOffset];
        const uint8_t scanlinePad = data[start + formatScanlinePadOffset];
        if (data[start] == depth && formatBitsPerPixel == bitsPerPixel &&
            PixmapFormat::isUsable(formatBitsPerPixel, scanlinePad)) {
            format = PixmapFormat{depth, bitsPerPixel, scanlinePad};
            return;
        }
    }
}
