#include "DeviceDescription.h"

#include <linux/input-event-codes.h>

DeviceDescription DeviceDescription::keyboard(const QString& name)
{
    DeviceDescription description;
    description.name = name;
    description.eventTypes = {EV_SYN, EV_KEY, EV_MSC, EV_LED, EV_REP};
    for (int code = KEY_ESC; code <= KEY_MICMUTE; ++code) {
        description.keys.append(code);
    }
    description.leds = {LED_NUML, LED_CAPSL, LED_SCROLLL};
    return description;
}

DeviceDescription DeviceDescription::mouse(const QString& name)
{
    DeviceDescription description;
    description.name = name;
    description.eventTypes = {EV_SYN, EV_KEY, EV_REL};
    description.keys = {BTN_LEFT, BTN_RIGHT, BTN_MIDDLE, BTN_SIDE, BTN_EXTRA};
    description.relativeAxes = {REL_X, REL_Y, REL_WHEEL};
    return description;
}

DeviceDescription DeviceDescription::relativeOnly(const QString& name)
{
    DeviceDescription description;
    description.name = name;
    description.eventTypes = {EV_SYN, EV_REL};
    description.relativeAxes = {REL_X, REL_Y};
    return description;
}
