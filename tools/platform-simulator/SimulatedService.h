#pragma once

#include <QDBusVirtualObject>
#include <QList>
#include <QString>
#include <QVariant>

#include <functional>

class CallRecorder;
class SimulatorSettings;

// One method of a simulated platform service.
struct SimulatedMethod
{
    struct Argument
    {
        QString type; // D-Bus type code: "s" or "i"
        QString name;
    };
    QString name;
    QList<Argument> arguments;
    QString replyType; // empty when the method returns nothing
    // Computes the reply value from the call's (already type-checked) arguments.
    std::function<QVariant(const QVariantList&)> answer;

    QString getSignature() const;
};

// One platform service object, e.g. "com.orvanta.DB" at "/com/orvanta/DB".
// Every call to its interface is recorded, then answered from the method
// table: an error reply when the settings make the method fail, when the
// method is unknown or when the arguments do not match its signature. The
// answer is sent at once, after the service's delay, or never (see
// SimulatorSettings::getAnswerDelay); introspection is always answered at once.
class SimulatedService : public QDBusVirtualObject
{
    Q_OBJECT

public:
    SimulatedService(const QString& interfaceName, const QString& objectPath,
                     const QList<SimulatedMethod>& methods, const SimulatorSettings& settings,
                     CallRecorder& recorder);

    QString getInterfaceName() const { return interfaceName; }
    QString getObjectPath() const { return objectPath; }

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private:
    QDBusMessage answer(const QDBusMessage& call) const;

    QString interfaceName;
    QString objectPath;
    QList<SimulatedMethod> methods;
    const SimulatorSettings& settings;
    CallRecorder& recorder;
};
