#pragma once

#include "overlay/OverlayContent.h"

#include <QImage>
#include <QString>

#include <cstdint>

class QPainter;

// Composes an overlay picture at a screen's size: the step's background with
// the release badge stretched over it, scaled to the screen, and the station's
// texts, counts and key labels drawn on it in the station's language.
//
// Owned by a StationDisplay and called only on its station's thread; any
// number of composers may run at once, one per station thread. The
// scaled backgrounds are kept, one per file, badge and screen size, and shared
// by every station of that size, so a count change only draws the texts anew.
class OverlayComposer
{
public:
    // Loads `fileName` with `badgeFile` over it (none when empty) at
    // width x height into getImage(); false, logged, when the background
    // cannot be read: the previous picture is kept then.
    bool loadImage(const QString& fileName, const QString& badgeFile, uint32_t width,
                   uint32_t height);
    // The whole picture of `content`; false when its background cannot be read.
    bool compose(const OverlayContent& content, uint32_t width, uint32_t height);

    const QImage& getImage() const { return image; }
    QImage& getImage() { return image; }
    double getScaleX() const { return scaleX; }
    double getScaleY() const { return scaleY; }

private:
    // The station's number, name and location, on both steps' pictures.
    void renderStationTexts(QPainter& painter, const OverlayContent& content) const;
    void renderKeyboardTexts(QPainter& painter, const OverlayContent& content) const;
    void renderMouseTexts(QPainter& painter, const OverlayContent& content) const;
    void renderLabelOnKey(QPainter& painter, const OverlayContent& content) const;

    QImage image;
    double scaleX = 1.0;
    double scaleY = 1.0;
};
