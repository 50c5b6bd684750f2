#pragma once

#include "overlay/OverlayContent.h"

#include <QImage>
#include <QRect>
#include <QSize>
#include <QString>

class TranslationLanguage;

// The overlay pictures a test expects on a station's screen, composed in the
// test's process as the daemon composes them, from this process's data
// directory (its pictures, translations and font must be the daemon's), and
// the comparison of a screen with them.
namespace ComposedPicture {

// The whole picture of `content` on a screen of this size, in Format_RGB32;
// null when its background cannot be read.
QImage composedPicture(const OverlayContent& content, QSize screen);

// The language of this id from this process's translation file (the data
// directory's), read at the first call; null when the file has none.
const TranslationLanguage* installedLanguage(const QString& id);

// The assignment key a station shows on its keyboard picture ("KEY_F1" for
// station 0, "KEY_A" for station 12, "KEY_0" for station 38).
QString assignmentKeyOf(int stationId);

// The part of a picture that a screen of this size shows: the overlay
// window's border puts the picture one pixel right and down, so its last
// column and row lie past the screen.
QRect visiblePart(QSize screen);
// Where that part lies on the screen.
QRect visibleOnScreen(QSize screen);

// How far a screen is from the picture it should show.
struct ScreenDifference
{
    int pixels = 0;
    int maxLevels = 0;
};

// The most a colour channel of a large text's edge moves between two
// drawings of the same picture (37 seen): Qt's text rendering keeps state
// between drawings (which glyphs were drawn before, on any thread). A wrong
// text or count moves far more.
constexpr int textEdgeLevels = 48;

// Pixel by pixel; images of another size or format differ everywhere.
ScreenDifference compareScreens(const QImage& shot, const QImage& expected);
// Equal, or equal up to text edges.
bool showsPicture(const QImage& shot, const QImage& expected);

} // namespace ComposedPicture
