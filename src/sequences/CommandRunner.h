#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVector>

// Starts a shell command for a device through the command launcher and waits until it has
// finished. The command gets a complete environment built beforehand; the launcher starts it
// with the default signal dispositions and mask, standard input from /dev/null, a session of
// its own and none of the daemon's descriptors (see CommandLauncher for its groups and
// capabilities). While the command runs, the kernel's input records keep being taken off every open
// device into the devices' queues, so none is lost however long the command takes; they are
// processed once it has ended.
class CommandRunner
{
public:
    // The daemon's own environment with `variables` added under upper-cased names; a variable
    // replaces an inherited one of the same name, and of two variables whose names differ only
    // by case the later one in the hash's order wins. Names and values are taken byte for byte
    // (Latin-1). Entries are "NAME=value".
    static QVector<QByteArray> buildEnvironment(const QHash<QString, QString>& variables);

    // Runs "/bin/bash -c command" and waits for it. False when it could not be started.
    static bool run(const QByteArray& command, const QVector<QByteArray>& environment);

private:
    static void waitTakingInput(int process);
};
