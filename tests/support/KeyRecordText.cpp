#include "KeyRecordText.h"

QStringList describeKeyRecords(const std::vector<KeyRecord>& records)
{
    QStringList lines;
    for (const KeyRecord& record : records) {
        if (record.type == KeyRecord::Type::FRAME_END) {
            lines.append(QStringLiteral("frame end %1").arg(record.value));
        } else if (record.value == 1) {
            lines.append(QStringLiteral("press %1").arg(record.code));
        } else if (record.value == 0) {
            lines.append(QStringLiteral("release %1").arg(record.code));
        } else {
            lines.append(QStringLiteral("key %1 value %2").arg(record.code).arg(record.value));
        }
    }
    return lines;
}
