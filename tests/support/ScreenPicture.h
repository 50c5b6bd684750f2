#pragma once

#include <QImage>
#include <QString>

#include <functional>

class XDisplayProbe;

// What a screen shows, as tests compare it: the whole screen read back from
// the server, a fingerprint of its pixels to compare with one recorded before,
// and PNG files of it for a person to look at when a comparison fails.
namespace ScreenPicture {

// The whole screen of the probe's display; null when it cannot be read.
QImage wholeScreen(const XDisplayProbe& probe);

// SHA-256, in lower-case hex, of the picture's pixels in Format_RGB32: row
// after row, each pixel as the four bytes of 0xffRRGGBB in little-endian
// order (blue, green, red, 0xff). The server leaves the unused top byte of a
// 24-bit pixel undefined, so it is set here.
QString fingerprint(const QImage& picture);

struct Taken
{
    QImage screen;
    bool accepted = false;
};
// Runs `step` and reads the whole screen until `accept` holds for what it
// shows or `timeoutMs` has passed; the last screen read either way.
Taken takeWhen(const XDisplayProbe& probe, const std::function<void()>& step,
               const std::function<bool(const QImage&)>& accept, int timeoutMs = 10000);

// Saves the picture as `name`.png for a person to look at: in the directory
// $SELVANE_SCREENSHOT_DIR names, or else in one made for this process under
// the temporary directory. The file's path; empty when it cannot be written.
QString saveForInspection(const QImage& picture, const QString& name);

} // namespace ScreenPicture
