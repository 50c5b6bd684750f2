#pragma once

#include <QHash>
#include <QProcess>
#include <QString>
#include <QStringList>

// tools/emulated-input run by a test: emulated keyboards and mice (umockdev
// nodes) that live as long as this object, and typing on them. Devices are
// numbered from 0 in the order keyboards, then mice.
class EmulatedInput
{
public:
    EmulatedInput(const QString& program, int keyboards, int mice = 0);
    ~EmulatedInput();

    EmulatedInput(const EmulatedInput&) = delete;
    EmulatedInput& operator=(const EmulatedInput&) = delete;

    // Sends one command ("press 0 KEY_F1") and waits for its "ok".
    bool send(const QString& command);
    // Holds the keys down in order, then lets them go in reverse order.
    bool type(int device, const QStringList& keys);

    // Every device's node, keyboards first.
    QStringList nodes;
    // What a process needs in its environment to see the nodes.
    QHash<QString, QString> environment;

private:
    bool readLine(QString& line);

    QProcess process;
};
