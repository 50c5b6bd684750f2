#include "sequences/KeySequenceAction.h"

KeySequenceAction::KeySequenceAction() = default;

KeySequenceAction::~KeySequenceAction() = default;
