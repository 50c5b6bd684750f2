// tools/platform-simulator answers the platform methods the daemon calls with
// the values it was given, fails those it was told to, answers late or never
// when told to, and records every call.

#include "DaemonRunner.h"
#include "PlatformSimulatorProcess.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QElapsedTimer>
#include <QStandardPaths>
#include <QtTest>

#include <memory>

class PlatformSimulatorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(bus.isBusRunning());
        QFile settings(bus.path("settings"));
        QVERIFY(settings.open(QIODevice::WriteOnly));
        settings.write("# counts\nassigned-keyboards=4\nunassigned-mice = 2\n"
                       "tag=location=Room 12\nlocale=*=en_GB.UTF-8\n");
        settings.close();
        simulator = std::make_unique<PlatformSimulatorProcess>(
            bus.busAddress(), bus.path("calls"),
            QStringList{"--config", bus.path("settings"), "--unassigned-keyboards", "1", "--tag",
                        "name=Station 3", "--locale", "5=de_DE.UTF-8", "--fail",
                        "DeviceGetNumberOfAssignedMice"});
        QVERIFY(simulator->isReady());
        connection = QDBusConnection::connectToBus(bus.busAddress(), "test");
        QVERIFY(connection.isConnected());
    }
    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus("test");
        simulator.reset();
    }

    void answersWithTheConfiguredValues_data()
    {
        QTest::addColumn<QString>("service");
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantList>("arguments");
        QTest::addColumn<QVariant>("answer");

        QTest::newRow("count from the settings file")
            << "com.orvanta.DB"
            << "DeviceGetNumberOfAssignedKeyboards" << QVariantList{} << QVariant(4);
        QTest::newRow("count from the command line")
            << "com.orvanta.DB"
            << "DeviceGetNumberOfUnassignedKeyboards" << QVariantList{} << QVariant(1);
        QTest::newRow("count with blanks around '='")
            << "com.orvanta.DB"
            << "DeviceGetNumberOfUnassignedMice" << QVariantList{} << QVariant(2);
        QTest::newRow("tag from the command line")
            << "com.orvanta.DB"
            << "StationGetTag" << QVariantList{"name"} << QVariant("Station 3");
        QTest::newRow("tag from the settings file")
            << "com.orvanta.DB"
            << "StationGetTag" << QVariantList{"location"} << QVariant("Room 12");
        QTest::newRow("unknown tag")
            << "com.orvanta.DB"
            << "StationGetTag" << QVariantList{"colour"} << QVariant(QString());
        QTest::newRow("locale of the display")
            << "com.orvanta.Controllers.Session"
            << "GetLocaleForUserOnDisplay" << QVariantList{5} << QVariant("de_DE.UTF-8");
        QTest::newRow("locale of any other display")
            << "com.orvanta.Controllers.Session"
            << "GetLocaleForUserOnDisplay" << QVariantList{2} << QVariant("en_GB.UTF-8");
        QTest::newRow("assignment answers nothing")
            << "com.orvanta.Assignment"
            << "DeviceAssignedAuto" << QVariantList{"/dev/input/event3", 5, "KeyboardDevice"}
            << QVariant();
    }
    void answersWithTheConfiguredValues()
    {
        QFETCH(QString, service);
        QFETCH(QString, method);
        QFETCH(QVariantList, arguments);
        QFETCH(QVariant, answer);

        const QDBusMessage reply = call(service, method, arguments);
        QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
        QCOMPARE(reply.arguments().value(0), answer);
    }

    void failsTheMethodsItWasToldTo()
    {
        const QDBusMessage reply = call("com.orvanta.DB", "DeviceGetNumberOfAssignedMice");
        QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
        QCOMPARE(reply.errorName(), QString("com.orvanta.Error.Simulated"));
    }

    void refusesWrongArguments()
    {
        QDBusMessage reply = call("com.orvanta.DB", "StationGetTag", {3});
        QCOMPARE(reply.errorName(), QString("org.freedesktop.DBus.Error.InvalidArgs"));
        reply = call("com.orvanta.Controllers.Session", "GetLocaleForUserOnDisplay");
        QCOMPARE(reply.errorName(), QString("org.freedesktop.DBus.Error.InvalidArgs"));
        reply = call("com.orvanta.Assignment", "AssignEverything");
        QCOMPARE(reply.errorName(), QString("org.freedesktop.DBus.Error.UnknownMethod"));
    }

    void recordsEveryCallWithItsArguments()
    {
        const QStringList before = simulator->calls();
        call("com.orvanta.Assignment", "DeviceAssignedAuto",
             {"/dev/input/event3", 5, "Keyboard \"A\""});
        call("com.orvanta.DB", "StationGetTag", {3});
        call("com.orvanta.Assignment", "SelvaneStarted");
        QCOMPARE(simulator->calls().mid(before.size()),
                 (QStringList{"com.orvanta.Assignment.DeviceAssignedAuto \"/dev/input/event3\" 5 "
                              "\"Keyboard \\\"A\\\"\"",
                              "com.orvanta.DB.StationGetTag 3",
                              "com.orvanta.Assignment.SelvaneStarted"}));
    }

    // A slow service answers late and a hung one never, while the others go
    // on answering at once; every call is recorded when it arrives.
    void answersLateOrNeverWhenToldTo()
    {
        DaemonRunner slowBus;
        QVERIFY(slowBus.isBusRunning());
        const PlatformSimulatorProcess slow(slowBus.busAddress(), slowBus.path("calls"),
                                            {"--delay", "com.orvanta.DB=1", "--hang",
                                             "com.orvanta.Controllers.Session",
                                             "--assigned-keyboards", "4"});
        QVERIFY(slow.isReady());
        QDBusConnection client = QDBusConnection::connectToBus(slowBus.busAddress(), "slow");
        QVERIFY(client.isConnected());

        QElapsedTimer clock;
        clock.start();
        QDBusPendingCall count =
            client.asyncCall(message("com.orvanta.DB", "DeviceGetNumberOfAssignedKeyboards"));
        QCOMPARE(client.call(message("com.orvanta.Assignment", "SelvaneStarted")).type(),
                 QDBusMessage::ReplyMessage);
        QVERIFY(!count.isFinished());
        QVERIFY(slow.waitForCall("com.orvanta.DB.DeviceGetNumberOfAssignedKeyboards"));
        count.waitForFinished();
        QVERIFY2(clock.elapsed() >= 1000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(count.reply().arguments().value(0), QVariant(4));

        const QDBusMessage hung = client.call(
            message("com.orvanta.Controllers.Session", "GetLocaleForUserOnDisplay", {2}),
            QDBus::Block, 500);
        QCOMPARE(hung.errorName(), QString("org.freedesktop.DBus.Error.NoReply"));
        QVERIFY(
            slow.calls().contains("com.orvanta.Controllers.Session.GetLocaleForUserOnDisplay 2"));
        QDBusConnection::disconnectFromBus("slow");
    }

private:
    static QDBusMessage message(const QString& service, const QString& method,
                                const QVariantList& arguments = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(
            service, "/" + QString(service).replace('.', '/'), service, method);
        message.setArguments(arguments);
        return message;
    }

    QDBusMessage call(const QString& service, const QString& method,
                      const QVariantList& arguments = {})
    {
        return connection.call(message(service, method, arguments));
    }

    DaemonRunner bus;
    std::unique_ptr<PlatformSimulatorProcess> simulator;
    QDBusConnection connection{QString()};
};

// Skipped (77) without dbus-daemon.
int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    if (QStandardPaths::findExecutable("dbus-daemon").isEmpty()) {
        fprintf(stderr, "SKIP: dbus-daemon is not installed\n");
        return 77;
    }
    PlatformSimulatorTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "test_platform_simulator.moc"
