#include "sequences/TriggeredAction.h"

#include "common/Logger.h"

namespace {
constexpr char logSource[] = "TriggeredAction";
} // namespace

TriggeredAction::TriggeredAction(const SystemCommandAction* triggered, const EventDevice* device)
    : action(triggered), eventDevice(device)
{
    if (!triggered) {
        SELVANE_LOG(LEVEL_BUG, "action is NULL");
    }
    if (!device) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
    }
}
