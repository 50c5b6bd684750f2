#include "LogCapture.h"
#include "TestFiles.h"
#include "UmockdevTestbed.h"

#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QtTest>

#include <algorithm>

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
        waitUntilIdle();
        QCOMPARE(output(), QByteArray("3\n"));
        const LogCapture::Entry* entry =
            capture.find("Executing command: echo \"$STATION_ID\" >> " + out + "\n");
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_INFO);

        // Nothing is left to run.
        type(node, KEY_A, true);
        type(node, KEY_A, false);
        waitUntilIdle();
        QCOMPARE(output(), QByteArray("3\n"));
    }

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
        waitUntilIdle();
        QCOMPARE(output(), ranOnRelease);

        // From now on the running configuration is what counts.
        QFile::remove(out);
        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_F2, true);
        type(node, KEY_F2, false);
        type(node, KEY_LEFTCTRL, false);
        waitUntilIdle();
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
        waitUntilIdle();
        // Each station's command ran once; two stations' commands run side by
        // side, so either may write first.
        QList<QByteArray> lines = output().split('\n');
        std::sort(lines.begin(), lines.end());
        QCOMPARE(lines, (QList<QByteArray>{"", "1", "2"}));
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
        QCOMPARE(handler->getDeviceVariables(node).value("station_id"), QString("2"));

        capture.clear();
        handler->logStatus();
        QCOMPARE(capture.messages(), (QStringList{"There are 1 assigned device(s) being managed:",
                                                  "Assigned device: " + node}));

        type(node, KEY_LEFTCTRL, true);
        type(node, KEY_F1, true);
        type(node, KEY_F1, false);
        type(node, KEY_LEFTCTRL, false);
        waitUntilIdle();
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
        waitUntilIdle();
        QCOMPARE(output(), QByteArray("4\n"));
    }

    void keysAreHandledWhileACommandRuns()
    {
        // Station 1's first command runs until the test opens its gate.
        const QString gate = dir->filePath("gate");
        createHandler("KEY_LEFTCTRL:KEY_F1:" + commandWaitingFor(gate) + "; echo ran >> " + out +
                      "\n" + "KEY_LEFTCTRL:KEY_F2:echo two >> " + out + "\n" +
                      "KEY_LEFTCTRL:KEY_F3:echo three >> " + out + "\n");
        const QString first = addKeyboard(1);
        const QString second = addKeyboard(2);
        combination(first, KEY_F1);
        QVERIFY(handler->getCommandScheduler().isRunning("1"));

        // Meanwhile station 1's next combination waits behind its running command, and
        // station 2's runs at once.
        combination(first, KEY_F2);
        QCOMPARE(handler->getCommandScheduler().waitingCount("1"), 1);
        combination(second, KEY_F3);
        QTRY_COMPARE_WITH_TIMEOUT(output(), QByteArray("three\n"), 10000);
        QVERIFY(handler->getCommandScheduler().isRunning("1"));

        QVERIFY(writeFile(gate, QByteArray()));
        waitUntilIdle();
        QCOMPARE(output(), QByteArray("three\nran\ntwo\n"));
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
        waitUntilIdle();
        QCOMPARE(output(), QByteArray("a\n"));
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
        waitUntilIdle();
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
        QVERIFY(testbed->waitUntilRead(node, *handler->getEventDevice(node)));
        handler->update();
    }

    // Ctrl, the key, both released: one combination, handled key by key.
    void combination(const QString& node, int key)
    {
        type(node, KEY_LEFTCTRL, true);
        type(node, key, true);
        type(node, key, false);
        type(node, KEY_LEFTCTRL, false);
    }

    // Commands run without the handler waiting: waits until every one of them has ended.
    void waitUntilIdle()
    {
        QTRY_VERIFY_WITH_TIMEOUT(handler->getCommandScheduler().isIdle(), 10000);
    }

    QByteArray output() const { return readFile(out); }

    QScopedPointer<QTemporaryDir> dir;
    QString out;
    std::unique_ptr<UmockdevTestbed> testbed;
    std::unique_ptr<AssignedDeviceHandler> handler;
};

SELVANE_UMOCKDEV_TEST_MAIN(AssignedDeviceHandlerTypingTest)
#include "test_assigneddevicehandler_typing.moc"
