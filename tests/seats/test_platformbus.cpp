// The seats bridge's side of the bus, on a private bus: a second connection
// plays the daemon. The three platform services answer from the role (the
// locale when the role has it), hand on claims and starts with their sender,
// and refuse calls of the wrong signature before the role sees them; the
// client follows the owner of "com.orvanta.selvane", sends its calls in order
// and logs one that fails.
#include "DaemonRunner.h"
#include "FakeSelvane.h"
#include "LogCapture.h"
#include "seats/bus/PlatformBus.h"
#include "seats/bus/SelvaneClient.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QtTest>

#include <functional>
#include <vector>

namespace {

// Answers from fixed values and records what it is told.
class RecordingRole : public PlatformRole
{
public:
    int countDevices(DeviceCount which) const override { return 10 + static_cast<int>(which); }
    QString stationTag(const QString& tag) const override
    {
        return tag == QLatin1String("name") ? QStringLiteral("Library") : QString();
    }
    void localeForDisplay(int displayId, std::function<void(const QString&)> answer) override
    {
        localeAsked.push_back(displayId);
        pendingLocale = std::move(answer);
    }
    void selvaneStarted(const QString& sender) override { starts.append(sender); }
    void deviceAssigned(const QString& sender, const QString& devicePath, int displayId,
                        const QString& deviceKind) override
    {
        claims.append(
            QStringLiteral("%1 %2 %3 %4").arg(sender, devicePath).arg(displayId).arg(deviceKind));
    }

    std::vector<int> localeAsked;
    std::function<void(const QString&)> pendingLocale;
    QStringList starts;
    QStringList claims;
};

// The call's answer, with this thread's event loop running meanwhile: the
// platform's side of the bus is served by it.
QDBusMessage answerOf(QDBusConnection& connection, const QDBusMessage& call)
{
    QDBusPendingCall pending = connection.asyncCall(call, 5000);
    if (!QTest::qWaitFor([&] { return pending.isFinished(); }, 6000)) {
        return QDBusMessage();
    }
    return pending.reply();
}

QDBusMessage platformCall(const QString& service, const QString& path, const QString& method,
                          const QVariantList& arguments = {})
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, service, method);
    message.setArguments(arguments);
    return message;
}

} // namespace

class PlatformBusTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        role = std::make_unique<RecordingRole>();
        platform = std::make_unique<PlatformBus>(QDBusConnection::sessionBus(), *role);
        QVERIFY2(platform->start(), qPrintable(platform->lastError()));
        daemon = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(
            QDBusConnection::SessionBus, QStringLiteral("daemon%1").arg(++connections)));
        QVERIFY(daemon->isConnected());
    }

    void cleanup()
    {
        const QString name = daemon->name();
        daemon.reset();
        QDBusConnection::disconnectFromBus(name);
        platform.reset();
    }

    void theCountsAndTheTagComeFromTheRole()
    {
        const QString db = QStringLiteral("com.orvanta.DB");
        const QString path = QStringLiteral("/com/orvanta/DB");
        const QStringList methods = {
            "DeviceGetNumberOfAssignedKeyboards", "DeviceGetNumberOfUnassignedKeyboards",
            "DeviceGetNumberOfAssignedMice", "DeviceGetNumberOfUnassignedMice"};
        for (int index = 0; index < methods.size(); ++index) {
            const QDBusReply<int> reply = answerOf(*daemon, platformCall(db, path, methods[index]));
            QVERIFY2(reply.isValid(), qPrintable(reply.error().message()));
            QCOMPARE(reply.value(), 10 + index);
        }
        const QDBusReply<QString> name =
            answerOf(*daemon, platformCall(db, path, "StationGetTag", {QStringLiteral("name")}));
        QCOMPARE(name.value(), QStringLiteral("Library"));
    }

    void theLocaleIsAnsweredWhenTheRoleHasIt()
    {
        QDBusPendingCall pending =
            daemon->asyncCall(platformCall(QStringLiteral("com.orvanta.Controllers.Session"),
                                           QStringLiteral("/com/orvanta/Controllers/Session"),
                                           QStringLiteral("GetLocaleForUserOnDisplay"), {11}));
        QTRY_COMPARE(role->localeAsked, std::vector<int>{11});
        QVERIFY(!pending.isFinished());
        role->pendingLocale(QStringLiteral("de_DE.UTF-8"));
        pending.waitForFinished();
        const QDBusReply<QString> reply = pending.reply();
        QCOMPARE(reply.value(), QStringLiteral("de_DE.UTF-8"));
    }

    void claimsAndStartsCarryTheirSender()
    {
        const QString assignment = QStringLiteral("com.orvanta.Assignment");
        const QString path = QStringLiteral("/com/orvanta/Assignment");
        QCOMPARE(answerOf(*daemon, platformCall(assignment, path, "SelvaneStarted")).type(),
                 QDBusMessage::ReplyMessage);
        QCOMPARE(answerOf(*daemon, platformCall(assignment, path, "DeviceAssignedAuto",
                                                {QStringLiteral("/dev/input/event3"), 11,
                                                 QStringLiteral("keyboard")}))
                     .type(),
                 QDBusMessage::ReplyMessage);
        const QString sender = daemon->baseService();
        QCOMPARE(role->starts, QStringList{sender});
        QCOMPARE(role->claims, QStringList{sender + " /dev/input/event3 11 keyboard"});
    }

    void aCallOfTheWrongSignatureNeverReachesTheRole()
    {
        const QDBusMessage reply =
            answerOf(*daemon, platformCall(QStringLiteral("com.orvanta.Assignment"),
                                           QStringLiteral("/com/orvanta/Assignment"),
                                           "DeviceAssignedAuto", {11, 11, 11}));
        QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
        const QDBusMessage tag = answerOf(*daemon, platformCall(QStringLiteral("com.orvanta.DB"),
                                                                QStringLiteral("/com/orvanta/DB"),
                                                                "StationGetTag", {3}));
        QCOMPARE(tag.type(), QDBusMessage::ErrorMessage);
        QVERIFY(role->claims.isEmpty());
    }

    void theClientFollowsTheOwnerAndSendsInOrder()
    {
        SelvaneClient client(QDBusConnection::sessionBus());
        QSignalSpy owners(&client, &SelvaneClient::ownerChanged);
        client.start();
        FakeSelvane fake;
        QVERIFY(daemon->registerVirtualObject(QStringLiteral("/"), &fake));
        QVERIFY(daemon->registerService(QString::fromLatin1(SelvaneClient::serviceName)));
        QTRY_COMPARE(client.getOwner(), daemon->baseService());

        for (int display = 0; display < 20; ++display) {
            client.call(QStringLiteral("configureKeyboard"), {display, display + 1});
        }
        client.call(QStringLiteral("unassignedDeviceAdded"), {QStringLiteral("/dev/input/event7")});
        QTRY_COMPARE(fake.calls.size(), 21);
        for (int display = 0; display < 20; ++display) {
            QCOMPARE(fake.calls[display],
                     QStringLiteral("configureKeyboard(%1, %2)").arg(display).arg(display + 1));
        }
        QCOMPARE(fake.calls.last(), QStringLiteral("unassignedDeviceAdded(/dev/input/event7)"));

        QVERIFY(daemon->unregisterService(QString::fromLatin1(SelvaneClient::serviceName)));
        QTRY_VERIFY(client.getOwner().isEmpty());
        QCOMPARE(owners.last().first().toString(), QString());
    }

    void aFailedCallIsLoggedWithItsMethod()
    {
        LogCapture log;
        SelvaneClient client(QDBusConnection::sessionBus());
        client.call(QStringLiteral("configureMouse"), {1, 2});
        QTRY_VERIFY(!log.messages().filter("The daemon's configureMouse failed: ").isEmpty());
    }

private:
    std::unique_ptr<RecordingRole> role;
    std::unique_ptr<PlatformBus> platform;
    std::unique_ptr<QDBusConnection> daemon;
    int connections = 0;
};

int main(int argc, char** argv)
{
    return runOnPrivateBus<QCoreApplication, PlatformBusTest>(argc, argv);
}

#include "test_platformbus.moc"
