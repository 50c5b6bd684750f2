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

#include <linux/input-event-codes.h>

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
            QVERIFY(keyboard.press(key));
            handler->update();
        }
        for (int key : {KEY_F1, KEY_LEFTALT}) {
            QVERIFY(keyboard.release(key));
            handler->update();
        }
        QVERIFY2(!QFile::exists(out), "the command ran before every key was up");
        QVERIFY(keyboard.release(KEY_LEFTCTRL));
        handler->update();
        // The handler waits for the command, so its output is complete here.
        QCOMPARE(output(), QByteArray("3\n"));

        // Nothing is left pending.
        QVERIFY(keyboard.press(KEY_A));
        QVERIFY(keyboard.release(KEY_A));
        handler->update();
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
        QVERIFY(keyboard.press(KEY_LEFTCTRL));
        QVERIFY(keyboard.press(KEY_F1));
        handler->update();
        QVERIFY(!QFile::exists(out));

        QVERIFY(keyboard.release(KEY_F1));
        QVERIFY(keyboard.release(KEY_LEFTCTRL));
        handler->update();
        QVERIFY(QFile::exists(out));
    }

    void unplugWithAPendingTriggerDropsItWithoutRunningTheCommand()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:touch " + out + "\n");
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const QString path = keyboard.devicePath();
        QVERIFY(handler->addAssignedDevice(path, 3));
        QVERIFY(keyboard.press(KEY_LEFTCTRL));
        QVERIFY(keyboard.press(KEY_F1));
        handler->update();
        QVERIFY(handler->getEventDevice(path));

        // The kernel releases the held keys on its way out, but the read
        // answers ENODEV first: the release that would run the command is
        // never seen.
        LogCapture capture;
        QSignalSpy changed(handler.get(), &AssignedDeviceHandler::assignedDevicesChanged);
        QVERIFY2(keyboard.unplug(), qPrintable(keyboard.errorString()));
        handler->update();
        QVERIFY2(capture.contains("Device " + path + " has been removed.  Closing device."),
                 qPrintable(capture.messages().join('\n')));
        QVERIFY(!handler->getEventDevice(path));
        // A device lost this way is dropped without a signal.
        QCOMPARE(changed.count(), 0);
        capture.clear();
        handler->logStatus();
        QCOMPARE(capture.messages(), QStringList{"There are 0 assigned device(s) being managed:"});

        // Commands run synchronously inside update(): had it run, the file
        // would exist by now. Deleting the handler runs nothing either.
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

    QByteArray output() const { return readFile(out); }

    std::unique_ptr<QTemporaryDir> dir;
    QString out;
    std::unique_ptr<AssignedDeviceHandler> handler;
};

SELVANE_UINPUT_TEST_MAIN(AssignedDeviceHandlerTest)
#include "test_assigneddevicehandler.moc"
