#pragma once

#include <QPoint>
#include <QRect>
#include <QSize>

// Where a picture drawn at its own size (the artwork, 1024x768 for the
// shipped ones) lands on a screen: scaled by one factor in both directions,
// the smaller of the two that fit it, and centred. So circles stay round and
// the key caps keep their shape on a 16:9 screen; on a screen of the artwork's
// shape the artwork fills it, as it always has. The margins beside it are
// filled by the background (ScaledBackground), not here.
//
// A value: made on a station's thread with its background and read from any
// thread after, never changed.
class ArtworkPlacement
{
public:
    ArtworkPlacement() = default;
    // Both sizes must be non-empty.
    static ArtworkPlacement fit(QSize artwork, QSize screen);

    double getScale() const { return scale; }
    // The artwork's rectangle on the screen.
    QRect getArea() const { return area; }
    // A text's position of the artwork on the screen, truncated toward zero
    // after scaling, as whole pixels.
    QPoint truncated(int x, int y) const;
    // A point of the artwork on the screen, rounded to the nearest pixel.
    QPoint rounded(int x, int y) const;
    // Text is drawn in points at 72 dots per inch of the artwork, so the
    // fonts grow with it.
    int dotsPerMeter() const;

    bool operator==(const ArtworkPlacement& other) const
    {
        return scale == other.scale && area == other.area;
    }

private:
    double scale = 1.0;
    QRect area;
};
