#pragma once

#include <QByteArray>
#include <QString>

typedef struct _UMockdevTestbed UMockdevTestbed;

// Devices of a small room in umockdev's script format (each device before its
// parent), for umockdev_testbed_add_from_string: a USB controller at PCI slot
// 5 with its root hub, USB keyboards and mice in its ports, graphics cards.

// The USB controller (/sys/devices/pci0000:00/0000:00:05.0) and its root hub.
QByteArray usbController();

// A USB keyboard or mouse in port `port` of the controller's root hub, with
// its USB device, interface, input device inputN and event node eventN.
QByteArray usbInputDevice(int port, int input, int event, bool keyboard, const QString& seat,
                          const QString& name);

// Graphics card cardN at PCI slot `slot`, on `seat` when one is given.
QByteArray card(int number, int slot, const QString& seat);

// A connector of card N.
QByteArray connector(int number, int slot);

// Adds the script's devices to the testbed; false, with a warning, when
// umockdev refuses the script.
bool addToTestbed(UMockdevTestbed* testbed, const QByteArray& script);
