#include "assignment/AssignmentAction.h"

#include "assignment/DisplayConfiguration.h"
#include "common/Logger.h"

namespace {
constexpr char logSource[] = "AssignmentAction";
} // namespace

AssignmentAction::AssignmentAction(DisplayConfiguration* target) : display(target)
{
    if (!target) {
        SELVANE_LOG(LEVEL_BUG, "display is NULL");
    }
}

void AssignmentAction::performAction(const EventDevice* eventDevice) const
{
    if (!eventDevice) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return;
    }
    // The display's signal makes the handler clear the key's action, which
    // deletes this object: nothing of it is touched after the call.
    if (display) {
        display->assignmentKeyPressed(eventDevice);
    }
}
