#pragma once

#include <QString>
#include <QtGlobal>

namespace Orvanta {

// The current date and time in whole seconds since the Unix epoch.
qint64 utilSecondsSinceEpoch();

// "true" or "false".
QString boolToString(bool value);

} // namespace Orvanta
