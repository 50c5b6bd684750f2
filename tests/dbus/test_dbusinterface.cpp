// The daemon's D-Bus service in-process, on a private session bus: the
// registration done by the central object, the exported methods, and the
// command queue between two ticks.
//
// The queue is observed on a second DBusInterface ("probe") that shares the
// central object but is exported on a connection of its own. Nothing but the
// test calls the probe's update(), so the test decides where a tick falls; the
// central object's own timer keeps running and drains only its own, empty
// queue. The commands log through the handlers they reach, which makes every
// execution visible in the captured log.

#include "DaemonRunner.h"
#include "LogCapture.h"

#include "assignment/AssignmentHandler.h"
#include "daemon/DBusInterface.h"
#include "daemon/Selvane.h"
#include "input/InputKeyCode.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QXmlStreamReader>
#include <QtTest>

#include <malloc.h>
#include <memory>

using Orvanta::Logger;

namespace {

constexpr char interfaceName[] = "com.orvanta.selvane.DBusInterface";
constexpr int burstSize = 10000;
// Heap growth tolerated over a whole burst, from caches still settling: about
// 13 bytes a call, where a command kept after its execution would cost at
// least 100 (the object and its path).
constexpr size_t heapNoiseBytes = 128 * 1024;

QString notUsed(const QString& path)
{
    return "The event device " + path + " is not being used.  There's nothing to remove";
}

// What logStatus writes while nothing is held.
QStringList statusLines()
{
    return {"There are 0 unassigned device(s) being managed:",
            "There are 0 display configuration(s) active:",
            "There are 0 assigned device(s) being managed:"};
}

// The methods of one interface in an introspection document, in order, each
// written as "name(argument:type:direction, ...)".
QStringList methodsOf(const QString& xml, const QString& interface)
{
    QStringList methods;
    QStringList arguments;
    QXmlStreamReader reader(xml);
    bool inInterface = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == QLatin1String("interface")) {
            inInterface = reader.attributes().value("name") == interface;
        } else if (reader.isEndElement() && reader.name() == QLatin1String("interface")) {
            inInterface = false;
        } else if (inInterface && reader.isStartElement()) {
            const QXmlStreamAttributes attributes = reader.attributes();
            if (reader.name() == QLatin1String("method")) {
                methods.append(attributes.value("name").toString());
                arguments.clear();
            } else if (reader.name() == QLatin1String("arg")) {
                arguments.append(attributes.value("name").toString() + ":" +
                                 attributes.value("type").toString() + ":" +
                                 attributes.value("direction").toString());
            }
        } else if (inInterface && reader.isEndElement() &&
                   reader.name() == QLatin1String("method")) {
            methods.last() += "(" + arguments.join(", ") + ")";
        }
    }
    return methods;
}

} // namespace

class DBusInterfaceTest : public QObject
{
    Q_OBJECT

public:
    explicit DBusInterfaceTest(QString busAddress_) : busAddress(busAddress_) {}

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void connectRegistersTheServiceOnTheSessionBus();
    void introspectionListsTheEightMethods();
    void callsBetweenTwoTicksRunInArrivalOrderAtTheNextTick();
    void logStatusWritesAtTheNextTickNotAtOnce();
    void twoLogStatusCallsInOneTickLogTwiceInOrder();
    void emptyDevicePathIsForwardedUnchanged();
    void configurationCompleteIsSeenAtTheNextUpdate();
    void badArgumentsGetAnErrorReplyAndQueueNothing_data();
    void badArgumentsGetAnErrorReplyAndQueueNothing();
    void burstOfCallsRunsCompletelyInOrderWithoutHeapGrowth();

private:
    QDBusMessage probeCall(const QString& method, const QVariantList& arguments = {}) const;
    // Sends the call to the probe and waits for its reply.
    QDBusMessage callProbe(const QString& method, const QVariantList& arguments = {});
    // Sends `count` deviceRemovedFromStation calls for ".../burst-<i>" and waits for all replies.
    bool sendBurst(int count);

    QString busAddress;
    QTemporaryDir dir;
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<Selvane> selvane;
    std::unique_ptr<DBusInterface> probe;
    QDBusConnection probeConnection{QString()};
    QDBusConnection caller{QString()};
};

void DBusInterfaceTest::initTestCase()
{
    QVERIFY(dir.isValid());
    InputKeyCode::buildTable();
    log = std::make_unique<LogCapture>();

    const QString config = dir.filePath("keys.conf");
    QFile file(config);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("KEY_LEFTCTRL:KEY_F1:true\n");
    file.close();

    // The central object registers its own DBusInterface on the session bus.
    selvane = std::make_unique<Selvane>(config);

    probe = std::make_unique<DBusInterface>(selvane.get());
    probeConnection = QDBusConnection::connectToBus(busAddress, "probe");
    QVERIFY(probeConnection.isConnected());
    QVERIFY(probeConnection.registerObject("/", probe.get(), QDBusConnection::ExportAllSlots));
    caller = QDBusConnection::connectToBus(busAddress, "caller");
    QVERIFY(caller.isConnected());
}

void DBusInterfaceTest::cleanupTestCase()
{
    probeConnection.unregisterObject("/");
    QDBusConnection::disconnectFromBus("probe");
    QDBusConnection::disconnectFromBus("caller");
    probe.reset();
    selvane.reset();
    log.reset();
    InputKeyCode::cleanupTable();
}

void DBusInterfaceTest::init()
{
    // Whatever an earlier test left queued must not leak into this one.
    probe->update();
    log->clear();
}

QDBusMessage DBusInterfaceTest::probeCall(const QString& method,
                                          const QVariantList& arguments) const
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(probeConnection.baseService(), "/", interfaceName, method);
    call.setArguments(arguments);
    return call;
}

QDBusMessage DBusInterfaceTest::callProbe(const QString& method, const QVariantList& arguments)
{
    // Asynchronous: the probe's slots run on this thread, which must keep
    // processing events while the reply is awaited.
    QDBusPendingCall pending = caller.asyncCall(probeCall(method, arguments));
    if (!DaemonRunner::waitUntil([&] { return pending.isFinished(); }, 5000)) {
        return QDBusMessage::createError("org.selvane.Test.Timeout", "no reply to " + method);
    }
    return pending.reply();
}

bool DBusInterfaceTest::sendBurst(int count)
{
    // Sent in batches whose replies are awaited before the next batch goes
    // out: the commands still pile up in the queue until the tick, but the
    // bus connections never hold more than one batch of messages, so their
    // buffers and pools reach the same size in every burst.
    constexpr int batchSize = 500;
    for (int first = 0; first < count; first += batchSize) {
        QList<QDBusPendingCall> pending;
        for (int i = first; i < qMin(count, first + batchSize); ++i) {
            pending.append(caller.asyncCall(probeCall(
                "deviceRemovedFromStation", {QStringLiteral("/dev/input/burst-%1").arg(i)})));
        }
        // Replies come back in the order the calls were sent.
        if (!DaemonRunner::waitUntil([&] { return pending.last().isFinished(); }, 30000)) {
            return false;
        }
        for (const QDBusPendingCall& call : pending) {
            if (!call.isFinished() || call.isError()) {
                return false;
            }
        }
    }
    return true;
}

void DBusInterfaceTest::connectRegistersTheServiceOnTheSessionBus()
{
    // The central object's connect() ran in initTestCase; its lines were
    // cleared by init(), so it is checked through the bus here and through
    // a fresh connect() on a throw-away interface below.
    QDBusConnection bus = QDBusConnection::sessionBus();
    QVERIFY(bus.interface()->isServiceRegistered("com.orvanta.selvane"));
    QCOMPARE(bus.interface()->serviceOwner("com.orvanta.selvane").value(), bus.baseService());

    // The same connection asking again for a name it owns is granted it;
    // registering a second object at "/" is refused.
    DBusInterface second(selvane.get());
    QVERIFY(!second.connect());
    QCOMPARE(log->messages().size(), 2);
    QCOMPARE(log->messages().at(0), QString("Connecting to dbus..."));
    QVERIFY2(log->messages().at(1).startsWith("Could not register object path '/'.  Error: "),
             qPrintable(log->messages().at(1)));
    const LogCapture::Entry* error = &log->entries().at(1);
    QCOMPARE(error->level, Logger::LEVEL_ERROR);
    QCOMPARE(error->file, QString("DBusInterface"));
    QCOMPARE(error->function, QString("connect"));
}

void DBusInterfaceTest::introspectionListsTheEightMethods()
{
    QDBusMessage introspect = QDBusMessage::createMethodCall(
        "com.orvanta.selvane", "/", "org.freedesktop.DBus.Introspectable", "Introspect");
    QDBusPendingCall pending = caller.asyncCall(introspect);
    QVERIFY(DaemonRunner::waitUntil([&] { return pending.isFinished(); }, 5000));
    QVERIFY2(!pending.isError(), qPrintable(pending.error().message()));
    const QString xml = pending.reply().arguments().value(0).toString();

    const QStringList expected{
        "deviceAddedToStation(devicePath:s:in, stationId:i:in)",
        "deviceRemovedFromStation(devicePath:s:in)",
        "unassignedDeviceAdded(devicePath:s:in)",
        "unassignedDeviceRemoved(devicePath:s:in)",
        "configureKeyboard(displayId:i:in, stationId:i:in)",
        "configureMouse(displayId:i:in, stationId:i:in)",
        "configurationComplete(displayId:i:in)",
        "logStatus()",
    };
    QCOMPARE(methodsOf(xml, interfaceName), expected);
}

void DBusInterfaceTest::callsBetweenTwoTicksRunInArrivalOrderAtTheNextTick()
{
    QCOMPARE(callProbe("deviceRemovedFromStation", {"/dev/input/first"}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("configureKeyboard", {2, 5}).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("unassignedDeviceAdded", {"/dev/input/event7"}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("logStatus").type(), QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("unassignedDeviceRemoved", {"/dev/input/event7"}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("configureMouse", {3, 6}).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("configurationComplete", {2}).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("deviceRemovedFromStation", {"/dev/input/last"}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(log->messages(), QStringList());

    probe->update();
    // What each command's handler logs first; the display configurations'
    // own lines (no X server, no session controller here) are left out.
    QStringList handlerLines;
    for (const LogCapture::Entry& entry : log->entries()) {
        if (entry.file != QLatin1String("DisplayConfiguration") ||
            entry.message.startsWith(QLatin1String("Creating display configuration")) ||
            entry.message.startsWith(QLatin1String("Removing display configuration"))) {
            handlerLines.append(entry.message);
        }
    }
    const QStringList expected{
        notUsed("/dev/input/first"),
        "Creating display configuration on display :2 on station 5.",
        "Adding unassigned device /dev/input/event7",
        "Could not open /dev/input/event7 for reading.",
        "There are 0 unassigned device(s) being managed:",
        "There are 1 display configuration(s) active:",
        "Display configuration running on display: 2  station: 5",
        "There are 0 assigned device(s) being managed:",
        "Creating display configuration on display :3 on station 6.",
        "Removing display configuration on display :2 on station 5.",
        notUsed("/dev/input/last"),
    };
    QCOMPARE(handlerLines, expected);
    QCOMPARE(selvane->getAssignmentHandler()->getDisplayConfigurations().size(), 1);
    QCOMPARE(selvane->getAssignmentHandler()->getDisplayConfigurations().first()->getDisplayId(),
             3);
    selvane->getAssignmentHandler()->configurationComplete(3);

    // The queue was drained: the next tick executes nothing.
    log->clear();
    probe->update();
    QCOMPARE(log->messages(), QStringList());
}

void DBusInterfaceTest::logStatusWritesAtTheNextTickNotAtOnce()
{
    QCOMPARE(callProbe("logStatus").type(), QDBusMessage::ReplyMessage);
    QVERIFY(!log->contains("There are 0 assigned device(s) being managed:"));

    probe->update();
    // The assignment handler's status, then the assigned-device handler's.
    QCOMPARE(log->messages(), statusLines());
    const LogCapture::Entry& first = log->entries().first();
    QCOMPARE(first.file, QString("AssignmentHandler"));
    QCOMPARE(first.function, QString("logStatus"));
    QCOMPARE(first.level, Logger::LEVEL_INFO);
    const LogCapture::Entry& status = log->entries().last();
    QCOMPARE(status.file, QString("AssignedDeviceHandler"));
    QCOMPARE(status.function, QString("logStatus"));
    QCOMPARE(status.level, Logger::LEVEL_INFO);
}

void DBusInterfaceTest::twoLogStatusCallsInOneTickLogTwiceInOrder()
{
    QCOMPARE(callProbe("logStatus").type(), QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("deviceRemovedFromStation", {"/dev/input/between"}).type(),
             QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("logStatus").type(), QDBusMessage::ReplyMessage);
    QCOMPARE(log->messages(), QStringList());

    probe->update();
    const QStringList expected =
        statusLines() + QStringList{notUsed("/dev/input/between")} + statusLines();
    QCOMPARE(log->messages(), expected);
}

void DBusInterfaceTest::emptyDevicePathIsForwardedUnchanged()
{
    QCOMPARE(callProbe("deviceRemovedFromStation", {QString()}).type(), QDBusMessage::ReplyMessage);
    QCOMPARE(callProbe("deviceAddedToStation", {QString(), 4}).type(), QDBusMessage::ReplyMessage);
    probe->update();

    // Two blanks where the path would be: the empty string reached the handler.
    QCOMPARE(log->messages().value(0),
             QString("The event device  is not being used.  There's nothing to remove"));
    QCOMPARE(log->messages().value(1), QString("Adding assigned device "));
    QCOMPARE(log->entries().at(1).file, QString("AssignedDeviceHandler"));
    // An empty path cannot be opened, so nothing was added.
    QVERIFY(!selvane->getAssignedDeviceHandler()->getEventDevice(QString()));
}

void DBusInterfaceTest::configurationCompleteIsSeenAtTheNextUpdate()
{
    // Through the daemon's own service and its own updates. Display 97 has no
    // server: every periodic update has the configuration try once more to
    // connect, and the first failure is logged. The update that executes
    // configurationComplete(97) deletes the configuration before that
    // update's display work: nothing of display 97 is logged after its
    // removal. (That a key arriving with the call claims nothing is tested
    // with the early updates.)
    const QString failedConnect = QStringLiteral("Could not get connection to display :97");
    const QString removed =
        QStringLiteral("Removing display configuration on display :97 on station 4.");
    const auto callDaemon = [this](const QString& method, const QVariantList& arguments) {
        QDBusPendingCall pending = caller.asyncCall(DaemonRunner::daemonCall(method, arguments));
        return DaemonRunner::waitUntil([&] { return pending.isFinished(); }, 5000) &&
               pending.reply().type() == QDBusMessage::ReplyMessage;
    };

    QVERIFY(callDaemon("configureKeyboard", {97, 4}));
    QVERIFY(DaemonRunner::waitUntil([&] { return log->count(failedConnect) == 1; }));
    QVERIFY(callDaemon("configurationComplete", {97}));
    QVERIFY(DaemonRunner::waitUntil([&] { return log->contains(removed); }));
    // Updates go on; the display is gone from them.
    const int ticksLater = 3;
    QTest::qWait(ticksLater * 100 + 50);
    QCOMPARE(log->count(failedConnect), 1);
}

void DBusInterfaceTest::badArgumentsGetAnErrorReplyAndQueueNothing_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QVariantList>("arguments");

    QTest::newRow("station id sent as a string")
        << "deviceAddedToStation" << QVariantList{"/dev/input/event3", "3"};
    QTest::newRow("arguments in the wrong order")
        << "deviceAddedToStation" << QVariantList{3, "/dev/input/event3"};
    QTest::newRow("station id missing") << "deviceAddedToStation" << QVariantList{"/dev/input/x"};
    QTest::newRow("device path sent as a number") << "deviceRemovedFromStation" << QVariantList{5};
    QTest::newRow("device path missing") << "unassignedDeviceAdded" << QVariantList{};
    QTest::newRow("device path sent as a boolean")
        << "unassignedDeviceRemoved" << QVariantList{true};
    QTest::newRow("display id sent as a string") << "configureKeyboard" << QVariantList{"2", 5};
    QTest::newRow("one id too few") << "configureMouse" << QVariantList{2};
    QTest::newRow("display id sent as a 64-bit number")
        << "configurationComplete" << QVariantList{qlonglong(2)};
    QTest::newRow("an argument too many") << "logStatus" << QVariantList{1};
    QTest::newRow("an unknown method") << "deviceAdded" << QVariantList{"/dev/input/event3"};
}

void DBusInterfaceTest::badArgumentsGetAnErrorReplyAndQueueNothing()
{
    QFETCH(QString, method);
    QFETCH(QVariantList, arguments);

    const QDBusMessage reply = callProbe(method, arguments);
    QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
    QVERIFY2(reply.errorName().startsWith("org.freedesktop.DBus.Error."),
             qPrintable(reply.errorName()));

    // A well-formed call afterwards is the only thing the next tick executes.
    QCOMPARE(callProbe("deviceRemovedFromStation", {"/dev/input/marker"}).type(),
             QDBusMessage::ReplyMessage);
    probe->update();
    QCOMPARE(log->messages(), QStringList{notUsed("/dev/input/marker")});
}

void DBusInterfaceTest::burstOfCallsRunsCompletelyInOrderWithoutHeapGrowth()
{
    // The burst's lines are checked as they come rather than stored, so that
    // the capture does not take the heap with it.
    log.reset();
    int executed = 0;
    int outOfOrder = 0;
    const QString prefix = "The event device /dev/input/burst-";
    const QMetaObject::Connection counting =
        connect(Logger::getInstance(), &Logger::message, this,
                [&](QString, Logger::Level, QString, QString, int, QString message) {
                    if (!message.startsWith(prefix)) {
                        return;
                    }
                    if (message.mid(prefix.size()).section(' ', 0, 0).toInt() != executed) {
                        ++outOfOrder;
                    }
                    ++executed;
                });

    // The first bursts bring the caches and pools of Qt, libdbus and the
    // allocator to the size a burst needs; the last one must then leave the
    // heap as it found it.
    for (int warmUp = 0; warmUp < 2; ++warmUp) {
        executed = 0;
        QVERIFY(sendBurst(burstSize));
        QCOMPARE(executed, 0);
        probe->update();
        QCOMPARE(executed, burstSize);
        QCOMPARE(outOfOrder, 0);
    }

    executed = 0;
    const size_t before = mallinfo2().uordblks;
    QVERIFY(sendBurst(burstSize));
    QCOMPARE(executed, 0);
    probe->update();
    QCOMPARE(executed, burstSize);
    QCOMPARE(outOfOrder, 0);
    const size_t after = mallinfo2().uordblks;
    disconnect(counting);
    log = std::make_unique<LogCapture>();

#if defined(__SANITIZE_ADDRESS__)
    Q_UNUSED(before);
    Q_UNUSED(after);
    QSKIP("the sanitizer's allocator keeps malloc's statistics empty; LeakSanitizer checks "
          "for lost commands at exit instead");
#else
    qInfo("heap in use before the burst: %zu bytes, after: %zu bytes", before, after);
    QVERIFY2(after <= before + heapNoiseBytes,
             qPrintable(QString("the heap grew by %1 bytes over %2 calls")
                            .arg(qlonglong(after) - qlonglong(before))
                            .arg(burstSize)));
#endif
}

// A private dbus-daemon is this test's session bus; without one the test is skipped.
int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    DaemonRunner bus;
    if (!bus.isBusRunning()) {
        fprintf(stderr, "SKIP: no private dbus-daemon could be started\n");
        return 77;
    }
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus.busAddress().toLocal8Bit());
    DBusInterfaceTest test(bus.busAddress());
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_dbusinterface.moc"
