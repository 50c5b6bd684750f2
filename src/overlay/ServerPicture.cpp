#include "overlay/ServerPicture.h"

#include "common/Logger.h"

#include <QByteArray>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace {
// The overlay's log lines belong to the display configuration, whichever
// thread writes them.
constexpr char logSource[] = "DisplayConfiguration";

// A PutImage request has a 24-byte header, 28 with the BIG-REQUESTS length.
constexpr uint32_t putImageHeaderBytes = 28;
// Rows converted to the server's layout go up in bands of at most this many
// bytes, so a conversion never needs a second screen-sized buffer.
constexpr size_t convertedBandBytes = 1024 * 1024;

// The rows of `upload`, one after the other, each padded to the server's
// scanline pad. Qt pads its rows to 32 bits, which is what the servers in use
// ask for; only another pad needs a copy.
// The caller made sure that `bytes`, stride times the height, fits a QByteArray.
QByteArray paddedRows(const QImage& upload, size_t stride, size_t bytes)
{
    if (static_cast<size_t>(upload.bytesPerLine()) == stride) {
        return QByteArray::fromRawData(reinterpret_cast<const char*>(upload.constBits()),
                                       static_cast<int>(bytes));
    }
    QByteArray rows(static_cast<int>(bytes), '\0');
    const size_t used = std::min(static_cast<size_t>(upload.bytesPerLine()), stride);
    for (int y = 0; y < upload.height(); ++y) {
        memcpy(rows.data() + static_cast<size_t>(y) * stride, upload.constScanLine(y), used);
    }
    return rows;
}
} // namespace

bool ServerPicture::uploadBackground(xcb_connection_t* c, xcb_window_t window,
                                     const xcb_screen_t& screen,
                                     const ServerSetupCheck::PixmapFormat& pixmapFormat,
                                     std::shared_ptr<const ScaledBackground> background)
{
    release(c);
    format = pixmapFormat;
    const QImage& image = background->image;
    pixmap = xcb_generate_id(c);
    xcb_create_pixmap(c, format.depth, pixmap, window, static_cast<uint16_t>(image.width()),
                      static_cast<uint16_t>(image.height()));
    gc = xcb_generate_id(c);
    const std::array<uint32_t, 2> gcValues = {screen.black_pixel, 0xffffff};
    xcb_create_gc(c, gc, pixmap, XCB_GC_FOREGROUND | XCB_GC_BACKGROUND, gcValues.data());
    uploaded = std::move(background);
    if (!putRows(c, image, QPoint(0, 0))) {
        release(c);
        return false;
    }
    return true;
}

void ServerPicture::put(xcb_connection_t* c, const QImage& part, QPoint at)
{
    if (pixmap) {
        putRows(c, part, at);
    }
}

bool ServerPicture::putRows(xcb_connection_t* c, const QImage& image, QPoint at)
{
    const bool sixteenBits = format.depth == 16;
    const auto width = static_cast<uint32_t>(image.width());
    const auto height = static_cast<uint32_t>(image.height());
    const std::optional<size_t> stride = format.rowBytes(width);
    const std::optional<size_t> bytes = format.imageBytes(width, height);
    // Opaque premultiplied pixels are the server's 32-bit pixels already.
    const bool asTheyAre =
        !sixteenBits && uploaded->opaque && stride == static_cast<size_t>(image.bytesPerLine());
    // One PutImage request carries at most the server's maximum request
    // length (in 4-byte units): a big picture goes up in bands of rows.
    const size_t maximumBytes = static_cast<size_t>(xcb_get_maximum_request_length(c)) * 4;
    size_t bandRows = stride && *stride > 0 && maximumBytes > putImageHeaderBytes
                          ? (maximumBytes - putImageHeaderBytes) / *stride
                          : 0;
    if (!asTheyAre && stride && *stride > 0) {
        bandRows = std::min(bandRows, std::max<size_t>(convertedBandBytes / *stride, 1));
    }
    if (!bytes || *bytes > static_cast<size_t>(std::numeric_limits<int>::max()) || bandRows < 1) {
        SELVANE_LOG(LEVEL_WARNING, "Could not create image");
        return false;
    }
    const QImage::Format serverLayout = sixteenBits ? QImage::Format_RGB16 : QImage::Format_RGB32;
    for (size_t top = 0; top < height; top += bandRows) {
        const auto rows = static_cast<int>(std::min(bandRows, height - top));
        const QImage band = asTheyAre ? image
                                      : image.copy(0, static_cast<int>(top), image.width(), rows)
                                            .convertToFormat(serverLayout);
        const size_t bandBytes = static_cast<size_t>(rows) * *stride;
        const QByteArray data = paddedRows(band, *stride, asTheyAre ? *bytes : bandBytes);
        const size_t offset = asTheyAre ? top * *stride : 0;
        xcb_put_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, gc, static_cast<uint16_t>(width),
                      static_cast<uint16_t>(rows), static_cast<int16_t>(at.x()),
                      static_cast<int16_t>(at.y() + static_cast<int>(top)), 0, format.depth,
                      static_cast<uint32_t>(bandBytes),
                      reinterpret_cast<const uint8_t*>(data.constData()) + offset);
        bytesPut += bandBytes;
    }
    xcb_flush(c);
    return true;
}

void ServerPicture::copyToWindow(xcb_connection_t* c, xcb_window_t window, const QRect& area) const
{
    if (!pixmap || area.isEmpty()) {
        return;
    }
    xcb_copy_area(c, pixmap, window, gc, static_cast<int16_t>(area.x()),
                  static_cast<int16_t>(area.y()), static_cast<int16_t>(area.x()),
                  static_cast<int16_t>(area.y()), static_cast<uint16_t>(area.width()),
                  static_cast<uint16_t>(area.height()));
    xcb_flush(c);
}

void ServerPicture::release(xcb_connection_t* c)
{
    if (pixmap) {
        xcb_free_pixmap(c, pixmap);
    }
    if (gc) {
        xcb_free_gc(c, gc);
    }
    forget();
}

void ServerPicture::forget()
{
    pixmap = 0;
    gc = 0;
    uploaded.reset();
}
