#pragma once

#include <QByteArray>
#include <QVector>

#include <cstdint>

// The bytes of an X server's setup reply (little-endian, as the client on this
// machine asks for it) with one screen of one depth and one visual, built from
// a few fields that a test sets to what it needs: a plausible server by
// default, any field of it hostile. Tests corrupt the result further by hand.
struct XSetupReply
{
    struct Format
    {
        uint8_t depth;
        uint8_t bitsPerPixel;
        uint8_t scanlinePad;
    };

    // Byte offsets of the counts that a test may make lie.
    static constexpr int screenCountOffset = 28;
    static constexpr int formatCountOffset = 29;

    uint16_t width = 1024;
    uint16_t height = 768;
    uint8_t rootDepth = 24;
    uint8_t bitsPerRgbValue = 8;
    // False: the depth lists a visual other than the root visual.
    bool rootVisualListed = true;
    // Depth 1 and depth 24 at 32 bits a pixel, both padded to 32 bits.
    QVector<Format> formats = plainFormats();
    QByteArray vendor = "Selvane test server";
    uint16_t maximumRequestLength = 65535;
    int screens = 1;

    // The first screen's root window and root visual.
    static constexpr uint32_t rootWindow = 0x100;
    static constexpr uint32_t rootVisual = 0x21;

    QByteArray bytes() const;
    static QVector<Format> plainFormats();
};
