#include "XDisplayProbe.h"

#include <xcb/randr.h>
#include <xcb/xfixes.h>

#include <array>
#include <cstring>

XDisplayProbe::XDisplayProbe(const QString& displayName)
    : connection(xcb_connect(displayName.toLatin1().constData(), nullptr))
{
    if (isConnected()) {
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection.get())).data;
        root = screen->root;
        rootDepth = screen->root_depth;
        blackPixel = screen->black_pixel;
    }
}

bool XDisplayProbe::isConnected() const
{
    return connection && !xcb_connection_has_error(connection.get());
}

xcb_atom_t XDisplayProbe::atom(const char* name) const
{
    xcb_connection_t* c = connection.get();
    const XcbPointer<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, static_cast<uint16_t>(strlen(name)), name), nullptr));
    return reply ? reply->atom : XCB_NONE;
}

QString XDisplayProbe::atomName(xcb_atom_t atom) const
{
    xcb_connection_t* c = connection.get();
    const XcbPointer<xcb_get_atom_name_reply_t> reply(
        xcb_get_atom_name_reply(c, xcb_get_atom_name(c, atom), nullptr));
    if (!reply) {
        return QString();
    }
    return QString::fromLatin1(xcb_get_atom_name_name(reply.get()),
                               xcb_get_atom_name_name_length(reply.get()));
}

QList<xcb_window_t> XDisplayProbe::topLevelWindows() const
{
    xcb_connection_t* c = connection.get();
    const XcbPointer<xcb_query_tree_reply_t> reply(
        xcb_query_tree_reply(c, xcb_query_tree(c, root), nullptr));
    QList<xcb_window_t> windows;
    if (reply) {
        const xcb_window_t* children = xcb_query_tree_children(reply.get());
        windows.reserve(xcb_query_tree_children_length(reply.get()));
        for (int i = 0; i < xcb_query_tree_children_length(reply.get()); ++i) {
            windows.append(children[i]);
        }
    }
    return windows;
}

QList<xcb_window_t> XDisplayProbe::windowsNamed(const QByteArray& name) const
{
    QList<xcb_window_t> named;
    const QList<xcb_window_t> windows = topLevelWindows();
    for (xcb_window_t window : windows) {
        if (property(window, XCB_ATOM_WM_NAME).value == name) {
            named.append(window);
        }
    }
    return named;
}

XcbPointer<xcb_get_window_attributes_reply_t> XDisplayProbe::attributes(xcb_window_t window) const
{
    xcb_connection_t* c = connection.get();
    return XcbPointer<xcb_get_window_attributes_reply_t>(
        xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, window), nullptr));
}

QRect XDisplayProbe::geometry(xcb_window_t window) const
{
    xcb_connection_t* c = connection.get();
    const XcbPointer<xcb_get_geometry_reply_t> reply(
        xcb_get_geometry_reply(c, xcb_get_geometry(c, window), nullptr));
    return reply ? QRect(reply->x, reply->y, reply->width, reply->height) : QRect();
}

int XDisplayProbe::borderWidth(xcb_window_t window) const
{
    xcb_connection_t* c = connection.get();
    const XcbPointer<xcb_get_geometry_reply_t> reply(
        xcb_get_geometry_reply(c, xcb_get_geometry(c, window), nullptr));
    return reply ? reply->border_width : -1;
}

XDisplayProbe::Property XDisplayProbe::property(xcb_window_t window, xcb_atom_t name) const
{
    xcb_connection_t* c = connection.get();
    // Long enough for every property the tests look at.
    constexpr uint32_t maximumLongs = 1024;
    const XcbPointer<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        c, xcb_get_property(c, 0, window, name, XCB_GET_PROPERTY_TYPE_ANY, 0, maximumLongs),
        nullptr));
    Property result;
    if (reply) {
        result.type = reply->type;
        result.format = reply->format;
        result.value = QByteArray(static_cast<const char*>(xcb_get_property_value(reply.get())),
                                  xcb_get_property_value_length(reply.get()));
    }
    return result;
}

void XDisplayProbe::deleteProperty(xcb_window_t window, xcb_atom_t name) const
{
    xcb_connection_t* c = connection.get();
    // Checked, so that the deletion has happened when this returns.
    XcbPointer<xcb_generic_error_t> error(
        xcb_request_check(c, xcb_delete_property_checked(c, window, name)));
}

QList<uint32_t> XDisplayProbe::values32(const Property& property)
{
    QList<uint32_t> values;
    for (int offset = 0; offset + 4 <= property.value.size(); offset += 4) {
        uint32_t value = 0;
        memcpy(&value, property.value.constData() + offset, 4);
        values.append(value);
    }
    return values;
}

QImage XDisplayProbe::cursorImage() const
{
    xcb_connection_t* c = connection.get();
    const XcbPointer<xcb_xfixes_query_version_reply_t> version(xcb_xfixes_query_version_reply(
        c, xcb_xfixes_query_version(c, XCB_XFIXES_MAJOR_VERSION, XCB_XFIXES_MINOR_VERSION),
        nullptr));
    if (!version) {
        return QImage();
    }
    const XcbPointer<xcb_xfixes_get_cursor_image_reply_t> reply(
        xcb_xfixes_get_cursor_image_reply(c, xcb_xfixes_get_cursor_image(c), nullptr));
    if (!reply) {
        return QImage();
    }
    QImage cursor(reply->width, reply->height, QImage::Format_ARGB32);
    const uint32_t* pixels = xcb_xfixes_get_cursor_image_cursor_image(reply.get());
    for (int y = 0; y < reply->height; ++y) {
        memcpy(cursor.scanLine(y), pixels + y * reply->width, reply->width * 4);
    }
    return cursor;
}

QImage XDisplayProbe::screenshot(const QRect& area) const
{
    xcb_connection_t* c = connection.get();
    const XcbPointer<xcb_get_image_reply_t> reply(xcb_get_image_reply(
        c,
        xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, root, static_cast<int16_t>(area.x()),
                      static_cast<int16_t>(area.y()), static_cast<uint16_t>(area.width()),
                      static_cast<uint16_t>(area.height()), ~0u),
        nullptr));
    if (!reply || area.isEmpty()) {
        return QImage();
    }
    const QImage::Format format = rootDepth == 16 ? QImage::Format_RGB16 : QImage::Format_RGB32;
    QImage shot(area.size(), format);
    const int stride = xcb_get_image_data_length(reply.get()) / area.height();
    const uint8_t* data = xcb_get_image_data(reply.get());
    for (int y = 0; y < area.height(); ++y) {
        memcpy(shot.scanLine(y), data + y * stride, qMin(stride, int(shot.bytesPerLine())));
    }
    return shot;
}

uint8_t XDisplayProbe::randrEventBase() const
{
    const xcb_query_extension_reply_t* randr =
        xcb_get_extension_data(connection.get(), &xcb_randr_id);
    return randr && randr->present ? randr->first_event : 0;
}

void XDisplayProbe::sendScreenChange(xcb_window_t window, int width, int height) const
{
    xcb_randr_screen_change_notify_event_t event{};
    event.response_type = static_cast<uint8_t>(randrEventBase() + XCB_RANDR_SCREEN_CHANGE_NOTIFY);
    event.root = root;
    event.request_window = window;
    event.width = static_cast<uint16_t>(width);
    event.height = static_cast<uint16_t>(height);
    // With no event mask, the event goes to the client that created the window.
    xcb_send_event(connection.get(), 0, window, 0, reinterpret_cast<const char*>(&event));
    xcb_flush(connection.get());
}

void XDisplayProbe::sync() const
{
    xcb_connection_t* c = connection.get();
    XcbPointer<xcb_get_input_focus_reply_t> reply(
        xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
}

bool XDisplayProbe::becomeWindowManager() const
{
    xcb_connection_t* c = connection.get();
    const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT;
    XcbPointer<xcb_generic_error_t> error(xcb_request_check(
        c, xcb_change_window_attributes_checked(c, root, XCB_CW_EVENT_MASK, &mask)));
    return !error;
}

QList<XDisplayProbe::WmStateRequest> XDisplayProbe::takeWmStateRequests() const
{
    xcb_connection_t* c = connection.get();
    const xcb_atom_t wmState = atom("_NET_WM_STATE");
    QList<WmStateRequest> requests;
    while (XcbPointer<xcb_generic_event_t> event{xcb_poll_for_event(c)}) {
        if ((event->response_type & 0x7f) != XCB_CLIENT_MESSAGE) {
            continue;
        }
        const auto* message = reinterpret_cast<const xcb_client_message_event_t*>(event.get());
        if (message->type == wmState && message->format == 32) {
            requests.append({message->window, message->data.data32[0], message->data.data32[1]});
        }
    }
    return requests;
}

int XDisplayProbe::whitePixels(const QImage& picture, const QRect& area)
{
    int count = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            const QRgb pixel = picture.pixel(x, y);
            count += qRed(pixel) > 200 && qGreen(pixel) > 200 && qBlue(pixel) > 200 ? 1 : 0;
        }
    }
    return count;
}

void XDisplayProbe::paintBlack(xcb_window_t window, const QRect& area) const
{
    xcb_connection_t* c = connection.get();
    const xcb_gcontext_t gc = xcb_generate_id(c);
    xcb_create_gc(c, gc, window, XCB_GC_FOREGROUND, &blackPixel);
    const xcb_rectangle_t rectangle = {
        static_cast<int16_t>(area.x()), static_cast<int16_t>(area.y()),
        static_cast<uint16_t>(area.width()), static_cast<uint16_t>(area.height())};
    xcb_poly_fill_rectangle(c, window, gc, 1, &rectangle);
    xcb_free_gc(c, gc);
    sync();
}

xcb_window_t XDisplayProbe::mapWindow(const QRect& area) const
{
    xcb_connection_t* c = connection.get();
    const xcb_window_t window = xcb_generate_id(c);
    const std::array<uint32_t, 2> values = {blackPixel, 1};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, root, static_cast<int16_t>(area.x()),
                      static_cast<int16_t>(area.y()), static_cast<uint16_t>(area.width()),
                      static_cast<uint16_t>(area.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT,
                      values.data());
    xcb_map_window(c, window);
    sync();
    return window;
}
