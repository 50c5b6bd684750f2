#include "XSetupReply.h"

namespace {

void append8(QByteArray& out, uint8_t value)
{
    out.append(static_cast<char>(value));
}

void append16(QByteArray& out, uint16_t value)
{
    append8(out, static_cast<uint8_t>(value & 0xff));
    append8(out, static_cast<uint8_t>(value >> 8));
}

void append32(QByteArray& out, uint32_t value)
{
    append16(out, static_cast<uint16_t>(value & 0xffff));
    append16(out, static_cast<uint16_t>(value >> 16));
}

void padToFour(QByteArray& out)
{
    while (out.size() % 4 != 0) {
        append8(out, 0);
    }
}

} // namespace

QVector<XSetupReply::Format> XSetupReply::plainFormats()
{
    QVector<Format> formats;
    formats.append({1, 1, 32});
    formats.append({24, 32, 32});
    return formats;
}

QByteArray XSetupReply::bytes() const
{
    QByteArray out;
    append8(out, 1); // success
    append8(out, 0);
    append16(out, 11); // protocol 11.0
    append16(out, 0);
    append16(out, 0);          // length, filled in at the end
    append32(out, 1);          // release
    append32(out, 0x00200000); // resource id base
    append32(out, 0x001fffff); // resource id mask
    append32(out, 256);        // motion buffer
    append16(out, static_cast<uint16_t>(vendor.size()));
    append16(out, maximumRequestLength);
    append8(out, static_cast<uint8_t>(screens));
    append8(out, static_cast<uint8_t>(formats.size()));
    append8(out, 0);  // image byte order: LSB first
    append8(out, 0);  // bitmap bit order
    append8(out, 32); // bitmap scanline unit
    append8(out, 32); // bitmap scanline pad
    append8(out, 8);  // min keycode
    append8(out, 255);
    append32(out, 0);
    out.append(vendor);
    padToFour(out);
    for (const Format& format : formats) {
        append8(out, format.depth);
        append8(out, format.bitsPerPixel);
        append8(out, format.scanlinePad);
        out.append(5, '\0');
    }
    for (int screen = 0; screen < screens; ++screen) {
        append32(out, rootWindow + static_cast<uint32_t>(screen));
        append32(out, 0x20);     // colormap
        append32(out, 0xffffff); // white
        append32(out, 0);        // black
        append32(out, 0);        // input masks
        append16(out, width);
        append16(out, height);
        append16(out, 300);
        append16(out, 200);
        append16(out, 1);
        append16(out, 1);
        append32(out, rootVisual);
        append8(out, 0); // backing stores
        append8(out, 0); // save unders
        append8(out, rootDepth);
        append8(out, 1); // one depth
        append8(out, rootDepth);
        append8(out, 0);
        append16(out, 1); // one visual
        append32(out, 0);
        append32(out, rootVisualListed ? rootVisual : rootVisual + 1);
        append8(out, 4); // TrueColor
        append8(out, bitsPerRgbValue);
        append16(out, 256);
        const bool sixteen = rootDepth == 16;
        append32(out, sixteen ? 0xf800 : 0xff0000);
        append32(out, sixteen ? 0x07e0 : 0x00ff00);
        append32(out, sixteen ? 0x001f : 0x0000ff);
        append32(out, 0);
    }
    const auto length = static_cast<uint16_t>((out.size() - 8) / 4);
    out[6] = static_cast<char>(length & 0xff);
    out[7] = static_cast<char>(length >> 8);
    return out;
}
