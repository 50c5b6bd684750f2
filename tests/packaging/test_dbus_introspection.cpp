#include "DaemonRunner.h"
#include "TestFiles.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QStringList>
#include <QXmlStreamReader>
#include <QtTest>

namespace {

const QString interfaceName = QStringLiteral("com.orvanta.selvane.DBusInterface");

// The methods of one interface of introspection XML, one entry each:
// "name(direction type name, ...)", in document order. Annotations and the
// document's other interfaces are left out.
QStringList methodsOf(const QByteArray& xml, const QString& interface)
{
    QStringList methods;
    QXmlStreamReader reader(xml);
    bool inInterface = false;
    QString method;
    QStringList arguments;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == QLatin1String("interface")) {
            inInterface = reader.attributes().value(QLatin1String("name")) == interface;
        } else if (reader.isEndElement() && reader.name() == QLatin1String("interface")) {
            inInterface = false;
        } else if (!inInterface) {
            continue;
        } else if (reader.isStartElement() && reader.name() == QLatin1String("method")) {
            method = reader.attributes().value(QLatin1String("name")).toString();
            arguments.clear();
        } else if (reader.isStartElement() && reader.name() == QLatin1String("arg")) {
            const QXmlStreamAttributes attributes = reader.attributes();
            arguments.append(QStringList({attributes.value(QLatin1String("direction")).toString(),
                                          attributes.value(QLatin1String("type")).toString(),
                                          attributes.value(QLatin1String("name")).toString()})
                                 .join(QLatin1Char(' ')));
        } else if (reader.isEndElement() && reader.name() == QLatin1String("method")) {
            methods.append(method + QLatin1Char('(') + arguments.join(QStringLiteral(", ")) +
                           QLatin1Char(')'));
        }
    }
    if (reader.hasError()) {
        return {QStringLiteral("XML error: ") + reader.errorString()};
    }
    return methods;
}

} // namespace

// The installed interface description, generated from the exported class at
// build time, against what the running daemon's introspection returns.
class DBusIntrospectionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theInstalledDescriptionIsWhatTheDaemonExports()
    {
        const QStringList described =
            methodsOf(readFile(QStringLiteral(SELVANE_INTERFACE_FILE)), interfaceName);
        QCOMPARE(described.size(), 8);
        QVERIFY(described.contains(
            QStringLiteral("deviceAddedToStation(in s devicePath, in i stationId)")));

        DaemonRunner runner;
        QVERIFY(runner.isBusRunning());
        const QString config = runner.path(QStringLiteral("keys.conf"));
        QVERIFY(writeFile(config, "KEY_LEFTCTRL:KEY_F1:true\n"));
        const pid_t daemon =
            runner.startDaemon({QStringLiteral("-c"), config},
                               DaemonRunner::logMessage(QStringLiteral("Connection established")));
        QVERIFY(daemon > 0);

        QDBusConnection bus =
            QDBusConnection::connectToBus(runner.busAddress(), QStringLiteral("introspection"));
        QVERIFY(bus.isConnected());
        const QDBusMessage reply = bus.call(QDBusMessage::createMethodCall(
            QStringLiteral("com.orvanta.selvane"), QStringLiteral("/"),
            QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect")));
        QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
        const QStringList exported =
            methodsOf(reply.arguments().value(0).toString().toUtf8(), interfaceName);
        QCOMPARE(exported, described);

        QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);
    }
};

SELVANE_DAEMON_TEST_MAIN(DBusIntrospectionTest)

#include "test_dbus_introspection.moc"
