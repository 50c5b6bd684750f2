#include "overlay/OverlayComposer.h"

#include "overlay/CompositionSlots.h"

#include <QPainter>

std::optional<OverlayPicture> OverlayComposer::compose(const OverlayContent& content, QSize screen)
{
    std::shared_ptr<const ScaledBackground> background =
        BackgroundLibrary::shared().obtain(content.backgroundFile(), content.badgeFile, screen);
    if (!background) {
        return std::nullopt;
    }
    OverlayPicture picture;
    picture.texts = OverlayTextLayout::layOut(content, background->placement, background->image);
    picture.background = std::move(background);
    return picture;
}

QImage OverlayComposer::render(const OverlayPicture& picture, const QRect& area)
{
    const CompositionSlots::Slot slot(CompositionSlots::shared());
    const QImage& background = picture.background->image;
    // copy() keeps the dots per metre, which size the fonts.
    QImage part = background.copy(area);
    QPainter painter(&part);
    painter.translate(-area.topLeft());
    OverlayTextLayout::draw(painter, picture.texts);
    return part;
}
