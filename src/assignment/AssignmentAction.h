#pragma once

#include "sequences/KeySequenceAction.h"

class DisplayConfiguration;

// Binds an assignment key sequence to the display configuration that waits
// for its key: the key pressed on an unassigned device hands that device to
// the display.
class AssignmentAction : public KeySequenceAction
{
public:
    // The display configuration is not owned.
    explicit AssignmentAction(DisplayConfiguration* display);

    void performAction(const EventDevice* eventDevice) const override;

    DisplayConfiguration* getDisplay() const { return display; }

private:
    DisplayConfiguration* display;
};
