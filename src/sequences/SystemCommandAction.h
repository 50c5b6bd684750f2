#pragma once

#include "sequences/KeySequenceAction.h"

#include <QString>

class AssignedDeviceHandler;

// Runs a shell command for a station's device. A match only records a trigger
// with the handler; the handler runs the command once the device's keys are up.
class SystemCommandAction : public KeySequenceAction
{
public:
    SystemCommandAction(QString command, AssignedDeviceHandler* handler);

    void performAction(const EventDevice* device) const override;
    // Runs the command with "/bin/bash -c" and the device's variables in its
    // environment, upper-cased; waits until it has finished.
    void executeCommand(const EventDevice* device) const;

    QString getCommand() const { return command; }

private:
    QString command;
    AssignedDeviceHandler* handler;
};
