#include "common/Util.h"

#include <QDateTime>

namespace Orvanta {

qint64 utilSecondsSinceEpoch()
{
    return QDateTime::currentDateTime().toSecsSinceEpoch();
}

QString boolToString(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

} // namespace Orvanta
