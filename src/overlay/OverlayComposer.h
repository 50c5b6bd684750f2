#pragma once

#include "overlay/BackgroundLibrary.h"
#include "overlay/OverlayContent.h"
#include "overlay/OverlayText.h"

#include <QImage>
#include <QRect>
#include <QSize>

#include <memory>
#include <optional>
#include <vector>

// An overlay picture at a screen's size: the step's shared background and
// the texts over it. The pixels are made only where they are needed
// (OverlayComposer::render), so no station keeps a whole picture of its own.
struct OverlayPicture
{
    std::shared_ptr<const ScaledBackground> background;
    std::vector<OverlayText> texts;

    QRect rect() const { return background->image.rect(); }
};

// Composes overlay pictures: the step's background with the release badge
// over it (BackgroundLibrary), the artwork's placement on the screen, and the
// station's texts, counts and key labels in the station's language.
//
// Functions only, called on the station threads, any number at once; drawing
// takes one of the daemon's composition slots (CompositionSlots). A picture
// belongs to its caller; its background is shared and read-only.
class OverlayComposer
{
public:
    // The picture of `content` at `screen`'s size; none, logged, when its
    // background cannot be read.
    static std::optional<OverlayPicture> compose(const OverlayContent& content, QSize screen);
    // The pixels of `area` of the picture: its background with every text
    // drawn over it, premultiplied ARGB. Pixel for pixel what the whole
    // picture has there.
    static QImage render(const OverlayPicture& picture, const QRect& area);
    static QImage renderWhole(const OverlayPicture& picture)
    {
        return render(picture, picture.rect());
    }
};
