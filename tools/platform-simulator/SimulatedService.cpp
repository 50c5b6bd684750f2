#include "SimulatedService.h"

#include "CallRecorder.h"
#include "SimulatorSettings.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QTimer>

namespace {
constexpr char simulatedErrorName[] = "com.orvanta.Error.Simulated";
}

QString SimulatedMethod::getSignature() const
{
    QString signature;
    for (const Argument& argument : arguments) {
        signature += argument.type;
    }
    return signature;
}

SimulatedService::SimulatedService(const QString& interfaceName_, const QString& objectPath_,
                                   const QList<SimulatedMethod>& methods_,
                                   const SimulatorSettings& settings_, CallRecorder& recorder_)
    : interfaceName(interfaceName_), objectPath(objectPath_), methods(methods_),
      settings(settings_), recorder(recorder_)
{
}

QString SimulatedService::introspect(const QString&) const
{
    QString xml = QStringLiteral("  <interface name=\"%1\">\n").arg(interfaceName);
    for (const SimulatedMethod& method : methods) {
        xml += QStringLiteral("    <method name=\"%1\">\n").arg(method.name);
        for (const SimulatedMethod::Argument& argument : method.arguments) {
            xml += QStringLiteral("      <arg name=\"%1\" type=\"%2\" direction=\"in\"/>\n")
                       .arg(argument.name, argument.type);
        }
        if (!method.replyType.isEmpty()) {
            xml += QStringLiteral("      <arg type=\"%1\" direction=\"out\"/>\n")
                       .arg(method.replyType);
        }
        xml += QStringLiteral("    </method>\n");
    }
    xml += QStringLiteral("  </interface>\n");
    return xml;
}

bool SimulatedService::handleMessage(const QDBusMessage& message, const QDBusConnection& connection)
{
    // Introspection, properties and peer calls are left to Qt's own handlers.
    if (message.type() != QDBusMessage::MethodCallMessage ||
        (!message.interface().isEmpty() && message.interface() != interfaceName)) {
        return false;
    }
    recorder.record(message);
    if (!message.isReplyRequired()) {
        return true;
    }
    const QDBusMessage reply = answer(message);
    const int delay = settings.getAnswerDelay(interfaceName);
    if (delay == 0) {
        connection.send(reply);
        return true;
    }
    // A slow or hung service: the event loop goes on, so the other services
    // and this one's later calls are received (and recorded) as usual.
    message.setDelayedReply(true);
    if (delay != SimulatorSettings::neverAnswers) {
        QTimer::singleShot(delay, this, [connection, reply] { connection.send(reply); });
    }
    return true;
}

QDBusMessage SimulatedService::answer(const QDBusMessage& call) const
{
    for (const SimulatedMethod& method : methods) {
        if (method.name != call.member()) {
            continue;
        }
        if (call.signature() != method.getSignature()) {
            return call.createErrorReply(
                QDBusError::InvalidArgs,
                QStringLiteral("%1 takes (%2), not (%3)")
                    .arg(method.name, method.getSignature(), call.signature()));
        }
        if (settings.isFailing(method.name)) {
            return call.createErrorReply(QLatin1String(simulatedErrorName),
                                         QStringLiteral("Simulated failure of ") + method.name);
        }
        if (!method.answer) {
            return call.createReply();
        }
        return call.createReply(method.answer(call.arguments()));
    }
    return call.createErrorReply(
        QDBusError::UnknownMethod,
        QStringLiteral("No method %1 on %2").arg(call.member(), interfaceName));
}
