// What udev's records of a device mean to the seats bridge, without udev: the
// port logind is given for a keyboard or mouse, and the values read from the
// properties, attributes and tags.
#include "seats/system/DeviceRecord.h"

#include <QtTest>

namespace {
const QString pci = QStringLiteral("/sys/devices/pci0000:00/0000:00:05.0");

DeviceRecord record(const QString& syspath, const QString& subsystem, const QString& devtype = {},
                    bool hasIdVendor = false)
{
    DeviceRecord device;
    device.syspath = syspath;
    device.sysname = syspath.section(QLatin1Char('/'), -1);
    device.subsystem = subsystem;
    device.devtype = devtype;
    device.hasIdVendor = hasIdVendor;
    return device;
}

DeviceRecord usbDevice(const QString& syspath)
{
    return record(syspath, QStringLiteral("usb"), QStringLiteral("usb_device"), true);
}

DeviceRecord usbInterface(const QString& syspath)
{
    return record(syspath, QStringLiteral("usb"), QStringLiteral("usb_interface"));
}

DeviceRecord inputParent(const QString& syspath, const QString& name = {})
{
    DeviceRecord device = record(syspath, QStringLiteral("input"));
    device.nameAttribute = name;
    return device;
}

// A USB keyboard's event node below port 1 of the controller, and its ancestors.
const QString keyboardPort = pci + QStringLiteral("/usb1/1-1");
const QString keyboardInput =
    keyboardPort + QStringLiteral("/1-1:1.0/0003:0627:0001.0001/input/input4");

QVector<DeviceRecord> usbKeyboardAncestors()
{
    DeviceRecord port = usbDevice(keyboardPort);
    port.properties.insert(QStringLiteral("ID_FOR_SEAT"),
                           QStringLiteral("usb-pci-0000_00_05_0-usb-0_1"));
    return {inputParent(keyboardInput, QStringLiteral("QEMU QEMU USB Keyboard\n")),
            record(keyboardPort + QStringLiteral("/1-1:1.0/0003:0627:0001.0001"),
                   QStringLiteral("hid")),
            usbInterface(keyboardPort + QStringLiteral("/1-1:1.0")),
            port,
            usbDevice(pci + QStringLiteral("/usb1")),
            record(pci, QStringLiteral("pci"))};
}

DeviceRecord eventNode(const QString& parent, const QString& name,
                       const QHash<QString, QString>& properties)
{
    DeviceRecord node = record(parent + QLatin1Char('/') + name, QStringLiteral("input"));
    node.devnode = QStringLiteral("/dev/input/") + name;
    node.properties = properties;
    return node;
}
} // namespace

Q_DECLARE_METATYPE(QVector<DeviceRecord>)

class DeviceRecordTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void thePortIsTheNearestUsbDeviceElseTheInputParent_data()
    {
        QTest::addColumn<QVector<DeviceRecord>>("ancestors");
        QTest::addColumn<QString>("port");

        QTest::newRow("a USB keyboard: its USB device, not the interface or the root hub")
            << usbKeyboardAncestors() << keyboardPort;
        const QString hubPort = pci + QStringLiteral("/usb1/1-1/1-1.2");
        QTest::newRow("behind a hub: the device in the hub's port, not the hub")
            << QVector<DeviceRecord>{inputParent(hubPort +
                                                 QStringLiteral("/1-1.2:1.0/input/input7")),
                                     usbInterface(hubPort + QStringLiteral("/1-1.2:1.0")),
                                     usbDevice(hubPort),
                                     usbDevice(pci + QStringLiteral("/usb1/1-1")),
                                     usbDevice(pci + QStringLiteral("/usb1"))}
            << hubPort;
        QTest::newRow("a usb_device without idVendor is passed over")
            << QVector<DeviceRecord>{inputParent(QStringLiteral("/sys/devices/x/input/input2")),
                                     record(QStringLiteral("/sys/devices/x"), QStringLiteral("usb"),
                                            QStringLiteral("usb_device"))}
            << QStringLiteral("/sys/devices/x/input/input2");
        const QString serio = QStringLiteral("/sys/devices/platform/i8042/serio0");
        QTest::newRow("a PS/2 keyboard: the inputN parent")
            << QVector<DeviceRecord>{inputParent(serio + QStringLiteral("/input/input3")),
                                     record(serio, QStringLiteral("serio")),
                                     record(QStringLiteral("/sys/devices/platform/i8042"),
                                            QStringLiteral("platform"))}
            << serio + QStringLiteral("/input/input3");
        QTest::newRow("no ancestor at all: none") << QVector<DeviceRecord>{} << QString();
    }

    void thePortIsTheNearestUsbDeviceElseTheInputParent()
    {
        QFETCH(QVector<DeviceRecord>, ancestors);
        QFETCH(QString, port);
        QCOMPARE(portOf(ancestors), port);
    }

    void aKeyboardsValuesComeFromItsNodeAndAncestors()
    {
        const DeviceRecord node = eventNode(
            keyboardInput, QStringLiteral("event3"),
            {{QStringLiteral("ID_INPUT_KEYBOARD"), QStringLiteral("1")},
             {QStringLiteral("ID_FOR_SEAT"), QStringLiteral("input-pci-0000_00_05_0-usb-0_1_1_0")},
             {QStringLiteral("ID_SEAT"), QStringLiteral("seat1")}});
        const std::optional<InputDeviceInfo> device = inputDeviceFrom(node, usbKeyboardAncestors());
        QVERIFY(device);
        QCOMPARE(device->devnode, QStringLiteral("/dev/input/event3"));
        QCOMPARE(device->syspath, keyboardInput + QStringLiteral("/event3"));
        QCOMPARE(device->name, QStringLiteral("QEMU QEMU USB Keyboard"));
        QVERIFY(device->keyboard);
        QVERIFY(!device->mouse);
        QCOMPARE(device->forSeat, QStringLiteral("input-pci-0000_00_05_0-usb-0_1_1_0"));
        QCOMPARE(device->seat, QStringLiteral("seat1"));
        QCOMPARE(device->port, keyboardPort);
        QCOMPARE(device->portForSeat, QStringLiteral("usb-pci-0000_00_05_0-usb-0_1"));
    }

    void idForSeatOnTheInputParentCounts()
    {
        // As udev has it: the seat tag and ID_FOR_SEAT on inputN, ID_SEAT on the node.
        QVector<DeviceRecord> ancestors = usbKeyboardAncestors();
        ancestors.first().properties.insert(QStringLiteral("ID_FOR_SEAT"),
                                            QStringLiteral("input-pci-0000_00_05_0-usb-0_1_1_0"));
        const DeviceRecord node =
            eventNode(keyboardInput, QStringLiteral("event3"),
                      {{QStringLiteral("ID_INPUT_KEYBOARD"), QStringLiteral("1")}});
        const std::optional<InputDeviceInfo> device = inputDeviceFrom(node, ancestors);
        QVERIFY(device);
        QCOMPARE(device->forSeat, QStringLiteral("input-pci-0000_00_05_0-usb-0_1_1_0"));
    }

    void aMouseWithoutSeatOrParentName()
    {
        DeviceRecord parent = inputParent(QStringLiteral("/sys/devices/virtual/input/input9"));
        parent.properties.insert(QStringLiteral("NAME"), QStringLiteral("\"Virtual Mouse\""));
        const DeviceRecord node =
            eventNode(parent.syspath, QStringLiteral("event9"),
                      {{QStringLiteral("ID_INPUT_MOUSE"), QStringLiteral("1")}});
        const std::optional<InputDeviceInfo> device = inputDeviceFrom(node, {parent});
        QVERIFY(device);
        QVERIFY(device->mouse);
        QVERIFY(!device->keyboard);
        QCOMPARE(device->name, QStringLiteral("Virtual Mouse"));
        QCOMPARE(device->seat, QString());
        QCOMPARE(device->forSeat, QString());
        QCOMPARE(device->port, parent.syspath);
        QCOMPARE(device->portForSeat, QString());
    }

    void otherInputNodesAreNoKeyboardsOrMice_data()
    {
        QTest::addColumn<QString>("sysname");
        QTest::addColumn<QString>("property");
        QTest::addColumn<QString>("value");
        QTest::newRow("a joystick") << "event5"
                                    << "ID_INPUT_JOYSTICK"
                                    << "1";
        QTest::newRow("a keyboard property that is not 1") << "event5"
                                                           << "ID_INPUT_KEYBOARD"
                                                           << "0";
        QTest::newRow("the legacy mouse node") << "mouse0"
                                               << "ID_INPUT_MOUSE"
                                               << "1";
        QTest::newRow("the input device itself") << "input5"
                                                 << "ID_INPUT_KEYBOARD"
                                                 << "1";
    }

    void otherInputNodesAreNoKeyboardsOrMice()
    {
        QFETCH(QString, sysname);
        QFETCH(QString, property);
        QFETCH(QString, value);
        const DeviceRecord node = eventNode(keyboardInput, sysname, {{property, value}});
        QVERIFY(!inputDeviceFrom(node, usbKeyboardAncestors()));
    }

    void aCardsSeatAndTags()
    {
        DeviceRecord card = record(pci + QStringLiteral("/drm/card1"), QStringLiteral("drm"),
                                   QStringLiteral("drm_minor"));
        card.tags = QStringList{QStringLiteral("seat"), QStringLiteral("master-of-seat")};
        card.properties = {{QStringLiteral("ID_SEAT"), QStringLiteral("seat1")},
                           {QStringLiteral("ID_FOR_SEAT"), QStringLiteral("drm-pci-0000_00_04_0")}};
        const std::optional<GraphicsCardInfo> info = graphicsCardFrom(card);
        QVERIFY(info);
        QCOMPARE(info->syspath, card.syspath);
        QCOMPARE(info->seat, QStringLiteral("seat1"));
        QVERIFY(info->masterOfSeat);
        QCOMPARE(info->forSeat, QStringLiteral("drm-pci-0000_00_04_0"));

        card.tags = QStringList{QStringLiteral("seat")};
        card.properties.clear();
        const std::optional<GraphicsCardInfo> plain = graphicsCardFrom(card);
        QVERIFY(plain);
        QVERIFY(!plain->masterOfSeat);
        QCOMPARE(plain->seat, QString());
    }

    void connectorsAndRenderNodesAreNoCards()
    {
        for (const char* name : {"card0-HDMI-A-1", "renderD128", "controlD64"}) {
            const DeviceRecord device = record(
                pci + QStringLiteral("/drm/card0/") + QLatin1String(name), QStringLiteral("drm"));
            QVERIFY2(!graphicsCardFrom(device), name);
        }
        QVERIFY(!graphicsCardFrom(record(pci + QStringLiteral("/card0"), QStringLiteral("pci"))));
    }
};

QTEST_GUILESS_MAIN(DeviceRecordTest)
#include "test_devicerecord.moc"
