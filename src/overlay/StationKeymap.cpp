#include "overlay/StationKeymap.h"

#include "overlay/XcbHandles.h"

#include <QByteArray>
#include <QList>

// xcb's XKB header names a structure member "explicit", a keyword of C++.
#define explicit xcb_explicit
#include <xcb/xkb.h>
#undef explicit
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <linux/input-event-codes.h>

#include <array>

namespace {

// X key codes are the kernel's plus 8.
constexpr int kernelToXKeyCode = 8;

// The two XKB events that mean the server's keyboard or its map changed.
// Modifier state changes are not asked for: they change no map.
constexpr uint16_t mapChangeEvents =
    XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
// The parts of the map whose changes MapNotify reports.
constexpr uint16_t mapParts = XCB_XKB_MAP_PART_KEY_TYPES | XCB_XKB_MAP_PART_KEY_SYMS |
                              XCB_XKB_MAP_PART_MODIFIER_MAP | XCB_XKB_MAP_PART_EXPLICIT_COMPONENTS |
                              XCB_XKB_MAP_PART_KEY_ACTIONS | XCB_XKB_MAP_PART_VIRTUAL_MODS |
                              XCB_XKB_MAP_PART_VIRTUAL_MOD_MAP;

// The kernel's codes of the letter keys A to Z.
constexpr std::array<int, 26> letterKeyCodes = {
    KEY_A, KEY_B, KEY_C, KEY_D, KEY_E, KEY_F, KEY_G, KEY_H, KEY_I, KEY_J, KEY_K, KEY_L, KEY_M,
    KEY_N, KEY_O, KEY_P, KEY_Q, KEY_R, KEY_S, KEY_T, KEY_U, KEY_V, KEY_W, KEY_X, KEY_Y, KEY_Z};

constexpr char rulesNamesProperty[] = "_XKB_RULES_NAMES";
// _XKB_RULES_NAMES holds rules, model, layout, variant and options, each
// ended by a NUL byte.
constexpr int layoutField = 2;
constexpr uint32_t rulesNamesMaxLongs = 256;

// A character a person reads on a Latin key cap: a letter of the Latin
// script, or a digit, punctuation mark or symbol of ASCII or Latin-1.
bool isPrintableLatin(char32_t character)
{
    if (character >= 0x21 && character <= 0x7e) {
        return true;
    }
    if (character > 0xffff) {
        return false;
    }
    const QChar qchar(static_cast<char16_t>(character));
    if (qchar.isLetter()) {
        return qchar.script() == QChar::Script_Latin;
    }
    return character >= 0xa1 && character <= 0xbf;
}

} // namespace

void StationKeymap::ContextFree::operator()(xkb_context* context) const
{
    xkb_context_unref(context);
}

void StationKeymap::KeymapFree::operator()(xkb_keymap* keymap) const
{
    xkb_keymap_unref(keymap);
}

StationKeymap::StationKeymap() = default;

StationKeymap::~StationKeymap() = default;

bool StationKeymap::load(xcb_connection_t* connection, xcb_window_t root)
{
    keymap.reset();
    layoutName.clear();
    if (coreKeyboard == -1 && !setUp(connection)) {
        return false;
    }
    keymap.reset(xkb_x11_keymap_new_from_device(context.get(), connection, coreKeyboard,
                                                XKB_KEYMAP_COMPILE_NO_FLAGS));
    if (!keymap) {
        return false;
    }
    layoutName = readLayoutName(connection, root);
    return true;
}

bool StationKeymap::setUp(xcb_connection_t* connection)
{
    if (!context) {
        // The map comes from the server; no file of ours is read.
        context.reset(xkb_context_new(static_cast<xkb_context_flags>(
            XKB_CONTEXT_NO_DEFAULT_INCLUDES | XKB_CONTEXT_NO_ENVIRONMENT_NAMES)));
        if (!context) {
            return false;
        }
    }
    uint8_t eventBase = 0;
    if (!xkb_x11_setup_xkb_extension(
            connection, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
            XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, &eventBase, nullptr)) {
        return false;
    }
    const int32_t device = xkb_x11_get_core_keyboard_device_id(connection);
    if (device == -1) {
        return false;
    }
    xcb_xkb_select_events(connection, static_cast<xcb_xkb_device_spec_t>(device), mapChangeEvents,
                          0, mapChangeEvents, mapParts, mapParts, nullptr);
    xcb_flush(connection);
    xkbEventBase = eventBase;
    coreKeyboard = device;
    return true;
}

void StationKeymap::forget()
{
    keymap.reset();
    layoutName.clear();
    xkbEventBase = 0;
    coreKeyboard = -1;
}

bool StationKeymap::isMapChange(const xcb_generic_event_t& event) const
{
    // Every XKB event has one event code; its kind is in the second byte.
    if (xkbEventBase == 0 || (event.response_type & 0x7f) != xkbEventBase) {
        return false;
    }
    const uint8_t kind = event.pad0;
    return kind == XCB_XKB_NEW_KEYBOARD_NOTIFY || kind == XCB_XKB_MAP_NOTIFY;
}

QString StationKeymap::labelFor(const QString& assignmentKey) const
{
    const QString usLabel = assignmentKey.section(QLatin1Char('_'), -1);
    const bool isLetterKey = assignmentKey.startsWith(QLatin1String("KEY_")) &&
                             usLabel.size() == 1 && usLabel.at(0) >= QLatin1Char('A') &&
                             usLabel.at(0) <= QLatin1Char('Z');
    if (!keymap || !isLetterKey) {
        return usLabel;
    }
    const QString label = latinCharacter(letterKeyCodes[usLabel.at(0).unicode() - 'A']);
    // A map whose groups are all of another script: such keyboards carry
    // Latin letters too, where a US keyboard has them.
    return label.isEmpty() ? usLabel : label;
}

QString StationKeymap::latinCharacter(int kernelKeyCode) const
{
    const xkb_keycode_t code = static_cast<xkb_keycode_t>(kernelKeyCode + kernelToXKeyCode);
    const xkb_layout_index_t groups = xkb_keymap_num_layouts_for_key(keymap.get(), code);
    for (xkb_layout_index_t group = 0; group < groups; ++group) {
        const xkb_keysym_t* symbols = nullptr;
        // Level 0: the key without modifiers.
        const int count = xkb_keymap_key_get_syms_by_level(keymap.get(), code, group, 0, &symbols);
        if (count < 1) {
            continue;
        }
        const char32_t character = xkb_keysym_to_utf32(symbols[0]);
        if (isPrintableLatin(character)) {
            return QString(QChar(static_cast<char16_t>(character))).toUpper();
        }
    }
    return QString();
}

QString StationKeymap::readLayoutName(xcb_connection_t* connection, xcb_window_t root) const
{
    const XcbPointer<xcb_intern_atom_reply_t> atom{xcb_intern_atom_reply(
        connection,
        xcb_intern_atom(connection, 1, sizeof(rulesNamesProperty) - 1, rulesNamesProperty),
        nullptr)};
    if (!atom || atom->atom == XCB_ATOM_NONE) {
        return QString();
    }
    const XcbPointer<xcb_get_property_reply_t> property{xcb_get_property_reply(
        connection,
        xcb_get_property(connection, 0, root, atom->atom, XCB_ATOM_STRING, 0, rulesNamesMaxLongs),
        nullptr)};
    if (!property || property->format != 8) {
        return QString();
    }
    const QByteArray names(static_cast<const char*>(xcb_get_property_value(property.get())),
                           xcb_get_property_value_length(property.get()));
    return QString::fromLatin1(names.split('\0').value(layoutField));
}
