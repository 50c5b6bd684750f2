#include "DeviceSpec.h"

#include <linux/input-event-codes.h>

DeviceSpec DeviceSpec::keyboard(const QString& name)
{
    DeviceSpec spec;
    spec.name = name;
    spec.eventTypes = {EV_SYN, EV_KEY, EV_MSC, EV_LED, EV_REP};
    for (int code = KEY_ESC; code <= KEY_MICMUTE; ++code) {
        spec.keys.append(code);
    }
    spec.leds = {LED_NUML, LED_CAPSL, LED_SCROLLL};
    return spec;
}

DeviceSpec DeviceSpec::mouse(const QString& name)
{
    DeviceSpec spec;
    spec.name = name;
    spec.eventTypes = {EV_SYN, EV_KEY, EV_REL};
    spec.keys = {BTN_LEFT, BTN_RIGHT, BTN_MIDDLE, BTN_SIDE, BTN_EXTRA};
    spec.relativeAxes = {REL_X, REL_Y, REL_WHEEL};
    return spec;
}

DeviceSpec DeviceSpec::relativeOnly(const QString& name)
{
    DeviceSpec spec;
    spec.name = name;
    spec.eventTypes = {EV_SYN, EV_REL};
    spec.relativeAxes = {REL_X, REL_Y};
    return spec;
}
