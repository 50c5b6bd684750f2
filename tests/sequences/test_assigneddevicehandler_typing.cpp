#include "LogCapture.h"
#include "TestFiles.h"
#include "UmockdevTestbed.h"

#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QtTest>

#include <linux/input-event-codes.h>

#include <poll.h>
#include <thread>

using Orvanta::Logger;

// The assigned device handler with emulated keyboards: typing on them runs
// the configured commands. Each command appends to a file of the test's
// temporary directory, which is how a run is observed.
class AssignedDeviceHandlerTypingTest : public QObject
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
        testbed.reset(new UmockdevTestbed);
    }
    void cleanup()
    {
        handler.reset();
        testbed.reset();
    }

    void ctrlAltF1OnAKeyboardOfStation3RunsTheCommandOnce()
    {
        createHandler("KEY_LEFTCTRL,KEY_LEFTALT:KEY_F1:echo \"$STATION_ID\" >> " + out + "\n");
        const QString node = addKeyboard(3);

        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_LEFTALT, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_LEFTALT, false);
        QVERIFY2(!QFile::exists(out), "the command ran before every key was up");
        LogCapture capture;
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("3\n"));
        const LogCapture::Entry* entry =
            capture.find("Executing command: echo \"$STATION_ID\" >> " + out + "\n");
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_INFO);

        // Nothing is left to run.
        type(node, KEY_A, true);
        type(node, KEY_A, false);
        QCOMPARE(output(), QByteArray("3\n"));
    }

    void commandRunsWhenTheLastHeldKeyIsReleased()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo ran >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        QVERIFY2(!QFile::exists(out), "ran while Ctrl was still down");
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("ran\n"));
    }

    void commandRunsAfterTheHoldKeyIfItIsReleasedFirst()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo ran >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_LEFTCTRL, false);
        QVERIFY2(!QFile::exists(out), "ran while F1 was still down");
        type(node, KEY_F1, false);
        QCOMPARE(output(), QByteArray("ran\n"));
    }

    void pressingF1ThreeTimesWithCtrlHeldRunsOnce()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo ran >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        for (int i = 0; i < 3; ++i) {
            type(node, KEY_F1, true);
            type(node, KEY_F1, false);
        }
        QVERIFY(!QFile::exists(out));
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("ran\n"));
    }

    void sequencesWithTheSameKeysAllRunInFileOrder()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo first >> " + out + "\n" +
                      "KEY_LEFTCTRL:KEY_F2:echo other >> " + out + "\n" +
                      "KEY_LEFTCTRL:KEY_F1:echo second >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("first\nsecond\n"));
    }

    // A reload while Ctrl+F1 is held: the command waiting for the release runs
    // only if the new file still has its line, and then as the new file's.
    void reloadWithTheCombinationHeld_data()
    {
        QTest::addColumn<QString>("newFile");
        QTest::addColumn<bool>("deleted");
        QTest::addColumn<QByteArray>("ranOnRelease");
        QTest::addColumn<int>("sequences");
        // What Ctrl+F1, then Ctrl+F2, typed with Ctrl held throughout, run afterwards.
        QTest::addColumn<QByteArray>("ranAfterwards");
        QTest::newRow("line kept among others")
            << "KEY_LEFTCTRL:KEY_F2:echo other >> OUT\nKEY_LEFTCTRL:KEY_F1:echo old >> OUT\n"
            << false << QByteArray("old\n") << 2 << QByteArray("old\nother\n");
        QTest::newRow("line removed") << "KEY_LEFTCTRL:KEY_F2:echo other >> OUT\n"
                                      << false << QByteArray() << 1 << QByteArray("other\n");
        QTest::newRow("same keys, other command")
            << "KEY_LEFTCTRL:KEY_F1:echo new >> OUT\n"
            << false << QByteArray() << 1 << QByteArray("new\n");
        QTest::newRow("same command, other keys")
            << "KEY_LEFTCTRL,KEY_LEFTSHIFT:KEY_F1:echo old >> OUT\n"
            << false << QByteArray() << 1 << QByteArray();
        QTest::newRow("empty file") << "" << false << QByteArray() << 0 << QByteArray();
        QTest::newRow("file deleted: the running configuration stays")
            << "" << true << QByteArray("old\n") << 1 << QByteArray("old\n");
    }

    void reloadWithTheCombinationHeld()
    {
        QFETCH(QString, newFile);
        QFETCH(bool, deleted);
        QFETCH(QByteArray, ranOnRelease);
        QFETCH(int, sequences);
        QFETCH(QByteArray, ranAfterwards);
        createHandler("KEY_LEFTCTRL:KEY_F1:echo old >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);

        const QString name = dir->filePath("keys.conf");
        if (deleted) {
            QVERIFY(QFile::remove(name));
        } else {
            QVERIFY(writeFile(name, QString(newFile).replace("OUT", out).toLatin1()));
        }
        LogCapture capture;
        handler->reloadConfigFile(name);
        if (deleted) {
            QCOMPARE(capture.messages(),
                     (QStringList{"Could not open config file " + name,
                                  "Keeping the running configuration of 1 key sequence(s)."}));
            QCOMPARE(capture.entries().at(0).level, Logger::LEVEL_ERROR);
            QCOMPARE(capture.entries().at(1).level, Logger::LEVEL_WARNING);
            QCOMPARE(capture.entries().at(1).function, QString("reloadConfigFile"));
        } else {
            QCOMPARE(capture.messages(),
                     (QStringList{"Parsing config file " + name,
                                  QString("Parsed %1 key sequence(s).").arg(sequences)}));
            QCOMPARE(capture.entries().at(1).function, QString("parseConfigFile"));
        }

        // The device stayed as it was: the keys still held are released.
        QVERIFY(handler->getEventDevice(node));
        type(node, KEY_F1, false);
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), ranOnRelease);

        // From now on the running configuration is what counts.
        QFile::remove(out);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_F2, true);
        type(node, KEY_F2, false);
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), ranAfterwards);
    }

    void reloadKeepsOneWaitingCommandPerLineAndDevice()
    {
        // Two keyboards each wait for their release; the line stays.
        createHandler("KEY_LEFTCTRL:KEY_F1:echo \"$STATION_ID\" >> " + out + "\n");
        const QString first = addKeyboard(1);
        const QString second = addKeyboard(2);
        for (const QString& node : {first, second}) {
            type(node, KEY_LEFTCTRL, true);
            type(node, KEY_F1, true);
        }
        handler->reloadConfigFile(dir->filePath("keys.conf"));
        handler->reloadConfigFile(dir->filePath("keys.conf"));
        for (const QString& node : {second, first}) {
            type(node, KEY_F1, false);
            type(node, KEY_LEFTCTRL, false);
        }
        QCOMPARE(output(), QByteArray("2\n1\n"));
    }

    void addingTheSameDeviceTwiceOnlyChangesItsStation()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo \"$STATION_ID\" >> " + out + "\n");
        const QString node = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(!node.isEmpty());
        QSignalSpy changed(handler.get(), &AssignedDeviceHandler::assignedDevicesChanged);
        LogCapture capture;

        QVERIFY(handler->addAssignedDevice(node, 1));
        EventDevice* device = handler->getEventDevice(node);
        QVERIFY(device);
        QVERIFY(handler->addAssignedDevice(node, 2));
        QCOMPARE(handler->getEventDevice(node), device);
        // File names are compared as whole strings.
        QCOMPARE(handler->getEventDevice(node + "0"), nullptr);
        QCOMPARE(handler->getEventDevice(node.chopped(1)), nullptr);
        QCOMPARE(changed.count(), 1);
        QCOMPARE(capture.count("Adding assigned device " + node), 1);
        QCOMPARE(device->getDeviceVariables().value("station_id"), QString("2"));

        capture.clear();
        handler->logStatus();
        QCOMPARE(capture.messages(), (QStringList{"There are 1 assigned device(s) being managed:",
                                                  "Assigned device: " + node}));

        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("2\n"));
    }

    void eachDeviceRunsItsOwnTriggerWithItsOwnVariables()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo \"$STATION_ID\" >> " + out + "\n");
        const QString first = addKeyboard(4);
        const QString second = addKeyboard(5);

        LogCapture capture;
        handler->logStatus();
        QCOMPARE(capture.messages(),
                 (QStringList{"There are 2 assigned device(s) being managed:",
                              "Assigned device: " + first, "Assigned device: " + second}));

        type(first, KEY_LEFTCTRL, true);
        type(first, KEY_F1, true);
        type(second, KEY_LEFTCTRL, true);
        type(second, KEY_LEFTCTRL, false); // all keys of the other device up
        QVERIFY(!QFile::exists(out));
        type(first, KEY_F1, false);
        type(first, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("4\n"));
    }

    void sleepingCommandHoldsUpKeyHandling()
    {
        // The command writes its line only at its end.
        createHandler("KEY_LEFTCTRL:KEY_F1:sleep 0.5; echo done >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        // The release that runs the command and a press behind it, read in
        // the same pass.
        QVERIFY(testbed->releaseKey(node, KEY_LEFTCTRL));
        QVERIFY(testbed->pressKey(node, KEY_A));
        QVERIFY(testbed->waitForPendingInput(node));
        EventDevice* device = handler->getEventDevice(node);
        int pressesSeen = 0;
        bool commandDoneWhenASeen = false;
        connect(device, &EventDevice::keymapChanged, this, [&](const EventDevice* changed) {
            if (changed->isKeyPressedOnce(KEY_A)) {
                ++pressesSeen;
                commandDoneWhenASeen = QFile::exists(out);
            }
        });
        handler->update();
        QCOMPARE(output(), QByteArray("done\n"));
        QCOMPARE(pressesSeen, 1);
        QVERIFY2(commandDoneWhenASeen, "the key press was handled while the command still ran");
    }

    void removedDeviceNeverRunsItsPendingTrigger()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo ran >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);

        QSignalSpy changed(handler.get(), &AssignedDeviceHandler::assignedDevicesChanged);
        LogCapture capture;
        handler->removeAssignedDevice(node);
        QCOMPARE(changed.count(), 1);
        const LogCapture::Entry* entry = capture.find("Removing assigned device " + node);
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_INFO);
        QCOMPARE(entry->function, QString("removeAssignedDevice"));
        QCOMPARE(handler->getEventDevice(node), nullptr);

        // The same keyboard assigned again is a new device (the allocator may
        // well hand it the old one's address): the trigger seen by the removed
        // device must not fire for it.
        QVERIFY(handler->addAssignedDevice(node, 1));
        type(node, KEY_F1, false);
        type(node, KEY_LEFTCTRL, false);
        type(node, KEY_A, true);
        type(node, KEY_A, false);
        QVERIFY2(!QFile::exists(out), "a removed device's trigger fired");
    }

    void aLongLineIsOneSequence()
    {
        // Once read in pieces of 255 characters, the rest of this line was a
        // sequence of its own; now it is the end of the first command, a
        // comment to the shell.
        const QByteArray first =
            ("KEY_LEFTCTRL:KEY_F1:echo a >> " + out + " #").toLatin1().leftJustified(255, 'x');
        QCOMPARE(first.size(), 255);
        createHandler(QString::fromLatin1(first) + "KEY_LEFTCTRL:KEY_F2:echo b >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F2, true);
        type(node, KEY_F2, false);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("a\n"));
    }

    void theKernelsReleaseOnUnplugRunsNothing()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo ran >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        // What the kernel reports of a keyboard unplugged with both keys held: both released in
        // one frame, which it marks with the value 1.
        QVERIFY(testbed->writeEvent(node, EV_KEY, KEY_LEFTCTRL, 0));
        QVERIFY(testbed->writeEvent(node, EV_KEY, KEY_F1, 0));
        QVERIFY(testbed->writeEvent(node, EV_SYN, SYN_REPORT, 1));
        QVERIFY(testbed->waitForPendingInput(node));
        handler->update();
        QVERIFY2(!QFile::exists(out), "the kernel's release ran the command");

        // The trigger is gone, not just postponed; a typed combination still runs.
        type(node, KEY_A, true);
        type(node, KEY_A, false);
        QVERIFY2(!QFile::exists(out), "the dropped trigger ran later");
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("ran\n"));
    }

    void aTypedReleaseOfBothKeysInOneFrameRunsTheCommand()
    {
        createHandler("KEY_LEFTCTRL:KEY_F1:echo ran >> " + out + "\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        QVERIFY(testbed->writeEvent(node, EV_KEY, KEY_LEFTCTRL, 0));
        QVERIFY(testbed->writeEvent(node, EV_KEY, KEY_F1, 0));
        QVERIFY(testbed->writeEvent(node, EV_SYN, SYN_REPORT, 0));
        QVERIFY(testbed->waitForPendingInput(node));
        handler->update();
        QCOMPARE(output(), QByteArray("ran\n"));
    }

    void keysTypedWhileACommandRunsAreHandledAfterItInOrder()
    {
        const QString started = dir->filePath("started");
        const QString finish = dir->filePath("finish");
        // The command waits until the test has typed during it.
        createHandler("KEY_LEFTCTRL:KEY_F1:touch " + started + "; while [ ! -e " + finish +
                      " ]; do sleep 0.01; done; echo ran >> " + out + "\n");
        const QString node = addKeyboard(1);
        EventDevice* device = handler->getEventDevice(node);
        QVector<int> seen;
        connect(device, &EventDevice::keymapChanged, this, [&](const EventDevice* changed) {
            for (int key : {KEY_1, KEY_2, KEY_3}) {
                if (changed->isKeyPressedOnce(key)) {
                    seen.append(QFile::exists(out) ? key : -key);
                }
            }
        });
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);

        bool takenDuringTheCommand = false;
        std::thread typist([&] {
            QDeadlineTimer deadline(10000);
            while (!QFile::exists(started) && !deadline.hasExpired()) {
                QThread::msleep(5);
            }
            for (int key : {KEY_1, KEY_2, KEY_3}) {
                testbed->pressKey(node, key);
                testbed->releaseKey(node, key);
            }
            testbed->waitForPendingInput(node);
            // Gives the waiting handler the time to take the records off the node.
            const QDeadlineTimer drained(10000);
            while (!drained.hasExpired()) {
                pollfd pending{device->getFd(), POLLIN, 0};
                if (poll(&pending, 1, 0) == 0) {
                    takenDuringTheCommand = true;
                    break;
                }
                QThread::msleep(5);
            }
            writeFile(finish, QByteArray());
        });
        type(node, KEY_LEFTCTRL, false);
        typist.join();
        QCOMPARE(output(), QByteArray("ran\n"));
        QVERIFY2(takenDuringTheCommand, "nothing took the records while the command ran");
        // Handled once the command had ended (positive codes), in the order typed.
        QCOMPARE(seen, QVector<int>({KEY_1, KEY_2, KEY_3}));
    }

    void windowsLineEndsEndALineLikeAnyOther()
    {
        createHandler("# saved on another system\r\n\r\nKEY_LEFTCTRL:KEY_F1:echo ran >> " + out +
                      "\r\n");
        const QString node = addKeyboard(1);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_LEFTCTRL, false);
        QCOMPARE(output(), QByteArray("ran\n"));
        QVERIFY2(!QFile::exists(out + "\r"), "the command kept the carriage return");
    }

private:
    void createHandler(const QString& content)
    {
        const QString name = dir->filePath("keys.conf");
        QVERIFY(writeFile(name, content.toLatin1()));
        handler.reset(new AssignedDeviceHandler(name));
    }

    QString addKeyboard(int station)
    {
        const QString node = testbed->addDevice(DeviceDescription::keyboard());
        if (node.isEmpty() || !handler->addAssignedDevice(node, station)) {
            qFatal("could not assign an emulated keyboard");
        }
        return node;
    }

    // One key change, delivered and handled by one pass of the handler.
    void type(const QString& node, int code, bool down)
    {
        QVERIFY(down ? testbed->pressKey(node, code) : testbed->releaseKey(node, code));
        QVERIFY(testbed->waitForPendingInput(node));
        handler->update();
    }

    QByteArray output() const { return readFile(out); }

    QScopedPointer<QTemporaryDir> dir;
    QString out;
    std::unique_ptr<UmockdevTestbed> testbed;
    std::unique_ptr<AssignedDeviceHandler> handler;
};

SELVANE_UMOCKDEV_TEST_MAIN(AssignedDeviceHandlerTypingTest)
#include "test_assigneddevicehandler_typing.moc"
