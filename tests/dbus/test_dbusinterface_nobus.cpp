// DBusInterface when there is no session bus to connect to.

#include "LogCapture.h"

#include "daemon/DBusInterface.h"

#include <QtTest>

using Orvanta::Logger;

class DBusInterfaceNoBusTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // Before anything asks for the session bus: an address where no bus
        // listens, and no X display that libdbus could autolaunch a bus on.
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/selvane-test/bus");
        qunsetenv("DISPLAY");
    }

    void nullOwnerIsReportedAndKept()
    {
        LogCapture log;
        DBusInterface dbus(nullptr);
        QCOMPARE(log.messages(), QStringList{"selvane is NULL"});
        const LogCapture::Entry& entry = log.entries().first();
        QCOMPARE(entry.level, Logger::LEVEL_BUG);
        QCOMPARE(entry.file, QString("DBusInterface"));
        QCOMPARE(entry.function, QString("DBusInterface"));

        // Commands queued without an owner are dropped with a Bug line at the
        // tick instead of being run on nothing.
        dbus.logStatus();
        dbus.deviceRemovedFromStation("/dev/input/event1");
        log.clear();
        dbus.update();
        QCOMPARE(log.messages(), (QStringList{"selvane is NULL", "selvane is NULL"}));
        QCOMPARE(log.entries().first().level, Logger::LEVEL_BUG);
    }

    void connectFailsWithoutSessionBus()
    {
        LogCapture log;
        DBusInterface dbus(nullptr);
        log.clear();
        QVERIFY(!dbus.connect());
        QCOMPARE(log.messages(), QStringList{"Could not connect to DBus"});
        const LogCapture::Entry& entry = log.entries().first();
        QCOMPARE(entry.level, Logger::LEVEL_ERROR);
        QCOMPARE(entry.file, QString("DBusInterface"));
        QCOMPARE(entry.function, QString("connect"));
    }
};

QTEST_GUILESS_MAIN(DBusInterfaceNoBusTest)
#include "test_dbusinterface_nobus.moc"
