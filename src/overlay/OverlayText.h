#pragma once

#include "overlay/ArtworkPlacement.h"
#include "overlay/OverlayContent.h"

#include <QColor>
#include <QFont>
#include <QPoint>
#include <QRect>
#include <QString>

#include <vector>

class QPaintDevice;
class QPainter;
class TranslationText;

// One line of text of a station's picture, as drawn on its screen.
struct OverlayText
{
    QString text;
    QFont font;
    QColor colour;
    // The left end of the baseline, in screen pixels.
    QPoint position;
    // Every pixel the line may colour, antialiasing included.
    QRect bounds;

    bool operator==(const OverlayText& other) const
    {
        return text == other.text && font == other.font && colour == other.colour &&
               position == other.position;
    }
};

// The texts of an overlay picture: the station's number, name and location,
// the step's instructions, counts and key labels in the station's language,
// placed on the screen as the artwork is. Knowing where each line may draw,
// a new picture over the same background only needs the rectangles of the
// lines that changed drawn again.
//
// Functions only, called on the station threads (and by tests and benchmarks
// on theirs); the lines are values owned by the caller's OverlayPicture or
// StationDisplay. The language's strings are only read.
class OverlayTextLayout
{
public:
    // The lines of `content`'s picture, in drawing order; none without a
    // language. `device` has the picture's resolution, which sizes the fonts.
    static std::vector<OverlayText> layOut(const OverlayContent& content,
                                           const ArtworkPlacement& placement,
                                           const QPaintDevice& device);
    // One line of a translated string, black, as the overlay draws them.
    static OverlayText fromTranslation(const TranslationText& line,
                                       const ArtworkPlacement& placement,
                                       const QPaintDevice& device);
    static void draw(QPainter& painter, const std::vector<OverlayText>& texts);
    // The union of the lines' bounds, as rectangles that do not overlap.
    static std::vector<QRect> areasOf(const std::vector<OverlayText>& texts);
    // Where two pictures over one background differ: the bounds of the lines
    // that are in only one of them, as rectangles that do not overlap.
    static std::vector<QRect> changedAreas(const std::vector<OverlayText>& before,
                                           const std::vector<OverlayText>& after);
};
