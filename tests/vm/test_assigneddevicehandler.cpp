// AssignedDeviceHandler with kernel keyboards: commands run from real key
// events, and an unplug drops a pending command.
#include "LogCapture.h"
#include "TestFiles.h"
#include "UinputTestMain.h"

#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <linux/input.h>

#include <memory>

class AssignedDeviceHandlerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { InputKeyCode::buildTable(); }
    void cleanupTestCase() { InputKeyCode::cleanupTable(); }

    void init()
    {
        dir.reset(new QTemporaryDir);
        QVERIFY(dir->isValid());
        out = dir->filePath("out");
    }
    void cleanup()
    {
        handler.reset();
        dir.reset();
    }

    void ctrlAltF1OnAKeyboardOfStation3RunsTheCommandOnce()
    {
        createHandler("KEY_LEFTCTRL,KEY_LEFTALT:KEY_F1:echo \"$STATION_ID\" >> " + out + "\n");
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        QVERIFY(handler->addAssignedDevice(keyboard.devicePath(), 3));

        // One update per event, as the daemon's loop would see them.
        for (int key : {KEY_LEFTCTRL, KEY_LEFTALT, KEY_F1}) {
            type(keyboard, key, true);
        }
        for (int key : {KEY_F1, KEY_LEFTALT}) {
            type(keyboard, key, false);
        }
        QVERIFY2(!QFile::exists(out), "the command ran before every key was up");
        type(keyboard, KEY_LEFTCTRL, false);
        waitUntilIdle();
        QCOMPARE(output(), QByteArray("3\n"));

        // Nothing is left pending.
        type(keyboard, KEY_A, true);
        type(keyboard, KEY_A, false);
        waitUntilIdle();
        QCOMPARE(output(), QByteArray("3\n"));
    }

    void pendingTriggerRunsWhenTheKeysComeUp()
    {
        // The same steps as the unplug below, released instead of unplugged:
        // proves the trigger was pending there.
        createHandler("KEY_LEFTCTRL:KEY_F1:touch " + out + "\n");
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        QVERIFY(handler->addAssignedDevice(keyboard.devicePath(), 3));
        type(keyboard, KEY_LEFTCTRL, true);
        type(keyboard, KEY_F1, true);
        QVERIFY(!QFile::exists(out));

        type(keyboard, KEY_F1, false);
        type(keyboard, KEY_LEFTCTRL, false);
        waitUntilIdle();
        QVERIFY(QFile::exists(out));
    }

    void unplugWithAPendingTriggerDropsItWithoutRunningTheCommand()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:touch " + out + "\n");
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const QString path = keyboard.devicePath();
        QVERIFY(handler->addAssignedDevice(path, 3));
        type(keyboard, KEY_LEFTCTRL, true);
        type(keyboard, KEY_F1, true);
        QVERIFY(handler->getEventDevice(path));

        // The kernel releases the held keys on its way out, but the read
        // answers ENODEV first: the release that would run the command is
        // never seen.
        LogCapture capture;
        QSignalSpy changed(handler.get(), &AssignedDeviceHandler::assignedDevicesChanged);
        QVERIFY2(keyboard.unplug(), qPrintable(keyboard.errorString()));
        const QString removed = "Device " + path + " has been removed.  Closing device.";
        QVERIFY2(QTest::qWaitFor([&] {
                     handler->update();
                     return capture.contains(removed);
                 }),
                 qPrintable(capture.messages().join('\n')));
        QVERIFY(!handler->getEventDevice(path));
        // A device lost this way is dropped without a signal.
        QCOMPARE(changed.count(), 0);
        capture.clear();
        handler->logStatus();
        QCOMPARE(capture.messages(), QStringList{"There are 0 assigned device(s) being managed:"});

        // Had it started, the command would be logged and the scheduler busy. Deleting the
        // handler runs nothing either.
        QVERIFY(handler->getCommandScheduler().isIdle());
        QVERIFY2(!QFile::exists(out), "the dropped command ran");
        QVERIFY(!capture.contains("Executing command: touch " + out + "\n"));
        handler.reset();
        QVERIFY2(!QFile::exists(out), "the dropped command ran");
    }

private:
    void createHandler(const QString& configuration)
    {
        const QString config = dir->filePath("keys.conf");
        QVERIFY(writeFile(config, configuration.toLatin1()));
        handler.reset(new AssignedDeviceHandler(config));
    }

    // One key change, taken off the kernel by the input reader and handled by one update.
    void type(UinputDevice& keyboard, int key, bool down)
    {
        const EventDevice* device = handler->getEventDevice(keyboard.devicePath());
        QVERIFY(device);
        const std::uint64_t before = device->getBytesRead();
        QVERIFY(down ? keyboard.press(key) : keyboard.release(key));
        // The key record and its frame end; a key held long enough adds repeats.
        const std::uint64_t written = 2 * sizeof(input_event);
        QVERIFY(QTest::qWaitFor([&] { return device->getBytesRead() >= before + written; }));
        handler->update();
    }

    // Commands run without the handler waiting: waits until every one of them has ended.
    void waitUntilIdle()
    {
        QVERIFY(QTest::qWaitFor([&] { return handler->getCommandScheduler().isIdle(); }));
    }

    QByteArray output() const { return readFile(out); }

    std::unique_ptr<QTemporaryDir> dir;
    QString out;
    std::unique_ptr<AssignedDeviceHandler> handler;
};

SELVANE_UINPUT_TEST_MAIN(AssignedDeviceHandlerTest)
#include "test_assigneddevicehandler.moc"
