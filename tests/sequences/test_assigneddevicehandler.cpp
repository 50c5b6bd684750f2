#include "LogCapture.h"
#include "TestFiles.h"

#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QtTest>

using Orvanta::Logger;

// The handler without devices that can be opened: configuration file reading,
// device book-keeping.
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
    }

    void configFile_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("parsed");
        QTest::addColumn<QStringList>("warnings");

        QTest::newRow("a comment, an empty line and one sequence")
            << QByteArray("# comment\n\nKEY_LEFTCTRL:KEY_F1:cmd\n") << 1 << QStringList{};
        QTest::newRow("an indented comment is a bad line")
            << QByteArray(" # comment\nKEY_LEFTCTRL:KEY_F1:cmd\n") << 1
            << QStringList{"Could not parse line from configuration file:  # comment\n"};
        QTest::newRow("a line of blanks is a bad line")
            << QByteArray("   \n") << 0
            << QStringList{"Could not parse line from configuration file:    \n"};
        QTest::newRow("a comment right after the keys is part of the command")
            << QByteArray("KEY_LEFTCTRL:KEY_F1:cmd # note\n") << 1 << QStringList{};
        QTest::newRow("the last line needs no line break")
            << QByteArray("KEY_LEFTCTRL:KEY_F1:cmd\nKEY_LEFTCTRL:KEY_F2:cmd") << 2 << QStringList{};
        QTest::newRow("invalid sequences are dropped, valid ones kept")
            << QByteArray("KEY_LEFTCTRL:KEY_F1:cmd\n:KEY_F2:cmd\nKEY_NOPE:KEY_F3:cmd\n"
                          "KEY_LEFTCTRL:KEY_F1:other\n")
            << 2 << QStringList{"Cannot find key for KEY_NOPE.  Ignoring key."};
        QTest::newRow("duplicates are kept")
            << QByteArray("KEY_LEFTCTRL:KEY_F1:cmd\nKEY_LEFTCTRL:KEY_F1:cmd\n") << 2
            << QStringList{};
        QTest::newRow("an empty file") << QByteArray() << 0 << QStringList{};

        // Lines of up to 4096 bytes, their break included, are taken whole.
        const QByteArray longCommand =
            QByteArray("KEY_LEFTCTRL:KEY_F1:echo a").leftJustified(4095, 'a');
        QTest::newRow("a line of 4096 bytes with its break is one sequence") << longCommand + "\n"
                                                                             << 1 << QStringList{};
        QTest::newRow("a last line of 4096 bytes without a break is one sequence")
            << longCommand + "a" << 1 << QStringList{};
        QTest::newRow("a long comment is one comment")
            << QByteArray("# ").leftJustified(3000, 'c') + "\nKEY_LEFTCTRL:KEY_F1:cmd\n"
            << 1 << QStringList{};
    }

    void configFile()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, parsed);
        QFETCH(QStringList, warnings);

        const QString name = writeConfig(content);
        LogCapture capture;
        AssignedDeviceHandler handler(name);

        const LogCapture::Entry* start = capture.find("Parsing config file " + name);
        QVERIFY(start);
        QCOMPARE(start->level, Logger::LEVEL_INFO);
        QCOMPARE(start->function, QString("parseConfigFile"));
        const LogCapture::Entry* result =
            capture.find(QString("Parsed %1 key sequence(s).").arg(parsed));
        QVERIFY2(result, qPrintable(capture.messages().join(" | ")));
        QCOMPARE(result->level, Logger::LEVEL_INFO);
        QCOMPARE(result->file, QString("AssignedDeviceHandler"));
        QCOMPARE(result->function, QString("parseConfigFile"));

        QStringList logged;
        for (const LogCapture::Entry& entry : capture.entries()) {
            if (entry.level == Logger::LEVEL_WARNING) {
                logged.append(entry.message);
            }
        }
        QCOMPARE(logged, warnings);
    }

    void refusedLines_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("errors");

        const QByteArray first = "KEY_LEFTCTRL:KEY_F1:echo first\n";
        const QByteArray last = "KEY_LEFTCTRL:KEY_F3:echo last\n";
        const QByteArray tooLong =
            QByteArray("KEY_LEFTCTRL:KEY_F2:echo a").leftJustified(4096, 'a') + "\n";
        const QString longError =
            "Line %1 of the configuration file is longer than 4096 bytes.  Ignoring it.";
        const QString nulError =
            "Line %1 of the configuration file contains a NUL byte.  Ignoring it.";
        QTest::newRow("a line of 4097 bytes with its break")
            << first + "# comment\n\n" + tooLong + last << QStringList{longError.arg(4)};
        QTest::newRow("a last line of 4097 bytes without a break")
            << first + QByteArray("KEY_LEFTCTRL:KEY_F2:echo a").leftJustified(4097, 'a')
            << QStringList{longError.arg(2)};
        QTest::newRow("a line many times the limit")
            << first + QByteArray("KEY_LEFTCTRL:KEY_F2:").leftJustified(20000, 'a') + "\n" + last
            << QStringList{longError.arg(2)};
        QTest::newRow("a line with a NUL byte")
            << first + QByteArray("KEY_LEFTCTRL:KEY_F2:echo a\0b\n", 29) + last
            << QStringList{nulError.arg(2)};
        QTest::newRow("a long comment with a NUL byte")
            << first + QByteArray("# a\0b\n", 6) + last << QStringList{nulError.arg(2)};
    }

    // A refused line is dropped whole, with one error naming it; the lines
    // around it are read as usual.
    void refusedLines()
    {
        QFETCH(QByteArray, content);
        QFETCH(QStringList, errors);

        const QString name = writeConfig(content);
        LogCapture capture;
        AssignedDeviceHandler handler(name);

        QStringList logged;
        for (const LogCapture::Entry& entry : capture.entries()) {
            if (entry.level <= Logger::LEVEL_WARNING) {
                logged.append(entry.message);
                QCOMPARE(entry.level, Logger::LEVEL_ERROR);
                QCOMPARE(entry.file, QString("AssignedDeviceHandler"));
                QCOMPARE(entry.function, QString("parseConfigFile"));
            }
        }
        QCOMPARE(logged, errors);
        const int expected = content.count("KEY_LEFTCTRL:KEY_F1") + content.count(":KEY_F3:");
        QVERIFY2(capture.find(QString("Parsed %1 key sequence(s).").arg(expected)),
                 qPrintable(capture.messages().join(" | ")));
    }

    void emptyConfigFileName()
    {
        LogCapture capture;
        AssignedDeviceHandler handler("");
        QCOMPARE(capture.messages(), QStringList{"configFileName is empty"});
        QCOMPARE(capture.entries().first().level, Logger::LEVEL_ERROR);
        QCOMPARE(capture.entries().first().function, QString("parseConfigFile"));
    }

    void missingConfigFile()
    {
        const QString name = dir->filePath("missing.conf");
        LogCapture capture;
        AssignedDeviceHandler handler(name);
        QCOMPARE(capture.messages(), QStringList{"Could not open config file " + name});
        QCOMPARE(capture.entries().first().level, Logger::LEVEL_ERROR);
    }

    void addingAnUnopenablePathReturnsFalseAndEmitsNothing()
    {
        AssignedDeviceHandler handler(writeConfig(""));
        QSignalSpy changed(&handler, &AssignedDeviceHandler::assignedDevicesChanged);
        const QString path = dir->filePath("event99");
        LogCapture capture;
        QVERIFY(!handler.addAssignedDevice(path, 1));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(handler.getEventDevice(path), nullptr);
        const LogCapture::Entry* adding = capture.find("Adding assigned device " + path);
        QVERIFY(adding);
        QCOMPARE(adding->level, Logger::LEVEL_INFO);
        QCOMPARE(adding->function, QString("addAssignedDevice"));
        QVERIFY(capture.contains("Could not open " + path + " for reading."));

        capture.clear();
        handler.logStatus();
        QCOMPARE(capture.messages(), QStringList{"There are 0 assigned device(s) being managed:"});
        QCOMPARE(capture.entries().first().function, QString("logStatus"));
    }

    void removingAnUnknownDeviceWarns()
    {
        AssignedDeviceHandler handler(writeConfig(""));
        QSignalSpy changed(&handler, &AssignedDeviceHandler::assignedDevicesChanged);
        LogCapture capture;
        handler.removeAssignedDevice("/dev/input/event42");
        QCOMPARE(capture.messages(),
                 QStringList{"The event device /dev/input/event42 is not being used.  "
                             "There's nothing to remove"});
        QCOMPARE(capture.entries().first().level, Logger::LEVEL_WARNING);
        QCOMPARE(capture.entries().first().function, QString("removeAssignedDevice"));
        QCOMPARE(changed.count(), 0);
    }

private:
    QString writeConfig(const QByteArray& content)
    {
        const QString name = dir->filePath("keys.conf");
        if (!writeFile(name, content)) {
            qFatal("cannot write %s", qPrintable(name));
        }
        return name;
    }

    QScopedPointer<QTemporaryDir> dir; // fresh for every test function
};

QTEST_GUILESS_MAIN(AssignedDeviceHandlerTest)
#include "test_assigneddevicehandler.moc"
