#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

// Checks an X server's setup reply before anything of it is used. The reply
// comes from whoever listens on a display's socket, so none of its counts is
// believed: its pixmap formats, screens, depths and visuals are walked only
// within the reply's own length, the first screen must be at most
// maximumScreenSide pixels each way, and the pixmap format that the overlay
// is uploaded in must have a pixel size and a scanline pad that the upload
// can handle. Works on plain bytes (the reply as xcb_get_setup() holds it:
// 8 bytes plus 4 times its length field), in the client's byte order, and
// keeps a pointer to them: they must outlive the check. Owned by the
// StationDisplay of the connection, on that station's thread; it keeps no
// other state and takes no lock.
class ServerSetupCheck
{
public:
    enum class Verdict
    {
        USABLE,
        // A count or length points past the end of the reply, or the reply
        // is not a successful setup at all.
        MALFORMED,
        NO_SCREEN,
        SCREEN_TOO_LARGE,
        NO_PIXMAP_FORMAT
    };

    // A pixmap format the overlay can be uploaded in.
    struct PixmapFormat
    {
        uint8_t depth = 0;
        uint8_t bitsPerPixel = 0;
        uint8_t scanlinePad = 0;

        // Bytes of one row of `width` pixels, padded to the scanline pad;
        // none when the format is unusable or the size overflows.
        std::optional<size_t> rowBytes(uint32_t width) const;
        // Bytes of `height` such rows; none on overflow.
        std::optional<size_t> imageBytes(uint32_t width, uint32_t height) const;
        static bool isUsable(uint8_t bitsPerPixel, uint8_t scanlinePad);
    };

    // The largest screen side drawn on: a bigger screen is refused.
    static constexpr uint32_t maximumScreenSide = 8192;
    static bool fitsMaximumSize(uint32_t width, uint32_t height)
    {
        return width <= maximumScreenSide && height <= maximumScreenSide;
    }

    ServerSetupCheck(const uint8_t* setup, size_t size);

    // The verdict on the setup's own screen size.
    Verdict getVerdict() const { return verdictAt(width, height); }
    // The verdict once the first screen has this size (a RandR change): the
    // setup's structure and formats stay what they were.
    Verdict verdictAt(uint32_t screenWidth, uint32_t screenHeight) const;
    // Where the first screen's record starts in the reply; valid unless the
    // verdict is MALFORMED or NO_SCREEN.
    size_t getScreenOffset() const { return screenOffset; }
    uint32_t getWidth() const { return width; }
    uint32_t getHeight() const { return height; }
    // Whether the first screen lists its root visual among its depths.
    bool hasRootVisual() const { return rootVisualFound; }
    // The format to upload in, whatever the screen's size; none when the
    // screen has no root visual or the setup no usable format for it.
    const std::optional<PixmapFormat>& getFormat() const { return format; }

private:
    bool walkScreen(size_t& offset, bool first);
    void chooseFormat(uint8_t rootDepth);

    const uint8_t* data;
    size_t size;
    // MALFORMED, NO_SCREEN, or USABLE for a well-formed setup with a screen.
    Verdict structure = Verdict::MALFORMED;
    size_t formatsOffset = 0;
    uint8_t formatCount = 0;
    size_t screenOffset = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    bool rootVisualFound = false;
    uint8_t rootVisualBitsPerRgb = 0;
    std::optional<PixmapFormat> format;
};
