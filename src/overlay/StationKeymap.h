#pragma once

#include <QString>

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>

struct xkb_context;
struct xkb_keymap;

// The keyboard map of one station's X server, read with libxkbcommon's X11
// support from the server's core keyboard, and what it makes of a letter key:
// the character printed on that key's cap where the station's people type.
// The kernel names keys by their place on a US keyboard; on a German one the
// key of KEY_Z carries a Y, on a French one the key of KEY_Q an A.
//
// Owned by a StationDisplay and used only on its station's thread, with that
// station's connection.
class StationKeymap
{
public:
    StationKeymap();
    ~StationKeymap();

    StationKeymap(const StationKeymap&) = delete;
    StationKeymap& operator=(const StationKeymap&) = delete;

    // Reads the server's map and the name of its layout; the first time on a
    // connection it also asks the server to tell when its keyboard or map
    // changes. False, with the map forgotten, when the server has no XKB or
    // the map cannot be read.
    bool load(xcb_connection_t* connection, xcb_window_t root);
    // Forgets the map and the connection's XKB set-up: the connection is gone.
    void forget();
    bool isLoaded() const { return static_cast<bool>(keymap); }
    // The layout as the server's rules name it ("de", "ru,us"); empty when unknown.
    QString getLayoutName() const { return layoutName; }

    // Whether the event says that the server's keyboard or its map changed.
    bool isMapChange(const xcb_generic_event_t& event) const;

    // The label of the assignment key ("KEY_Z", "KEY_F3", "KEY_0"): for a
    // letter key, what the key gives without modifiers in the first group of
    // the map where that is a printable Latin character (upper-cased when a
    // letter); otherwise, and without a map, the part of the name after its
    // last "_", as on a US keyboard.
    QString labelFor(const QString& assignmentKey) const;

private:
    // Sets XKB up on the connection and selects the map change events.
    bool setUp(xcb_connection_t* connection);
    QString latinCharacter(int kernelKeyCode) const;
    QString readLayoutName(xcb_connection_t* connection, xcb_window_t root) const;

    struct ContextFree
    {
        void operator()(xkb_context* context) const;
    };
    struct KeymapFree
    {
        void operator()(xkb_keymap* keymap) const;
    };

    std::unique_ptr<xkb_context, ContextFree> context;
    std::unique_ptr<xkb_keymap, KeymapFree> keymap;
    QString layoutName;
    // The first event code of XKB on the connection, 0 when it is not set up.
    uint8_t xkbEventBase = 0;
    // The server's core keyboard, -1 when XKB is not set up.
    int32_t coreKeyboard = -1;
};
