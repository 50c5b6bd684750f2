#pragma once

// What the tests of InputReader share: kernel records as bytes, and taking a device's records
// with a deadline.

#include "input/InputReader.h"

#include <QByteArray>
#include <QVector>
#include <QtTest>

#include <linux/input.h>

#include <cstdint>
#include <limits>

namespace QTest {
template <> inline char* toString(const KeyRecord& record)
{
    if (record.type == KeyRecord::Type::FRAME_END) {
        return qstrdup(QByteArray("frame end " + QByteArray::number(record.value)).constData());
    }
    return qstrdup(
        QByteArray((record.value == 1 ? "press " : "release ") + QByteArray::number(record.code))
            .constData());
}
} // namespace QTest

namespace InputReaderTesting {

constexpr std::size_t everything = std::numeric_limits<std::size_t>::max();

// One kernel input_event record (zero time stamp) as bytes.
inline QByteArray eventRecord(int type, int code, int value)
{
    input_event event{};
    event.type = static_cast<std::uint16_t>(type);
    event.code = static_cast<std::uint16_t>(code);
    event.value = value;
    return QByteArray(reinterpret_cast<const char*>(&event), sizeof event);
}

// A key record and the SYN_REPORT after it, as the kernel sends a key press or release.
inline QByteArray keyFrame(int code, int value)
{
    return eventRecord(EV_KEY, code, value) + eventRecord(EV_SYN, SYN_REPORT, 0);
}

// Takes the device's records until `count` came or five seconds passed; the Qt events are
// processed meanwhile. `error` gets a read error given with them.
inline QVector<KeyRecord> takeRecords(InputReader& reader, InputReader::DeviceId id,
                                      qsizetype count, int* error = nullptr)
{
    QVector<KeyRecord> records;
    // The caller compares what came with what it wanted.
    [[maybe_unused]] const bool complete = QTest::qWaitFor(
        [&] {
            InputReader::Taken taken = reader.take(id, everything);
            records.append(QVector<KeyRecord>(taken.records.begin(), taken.records.end()));
            if (error && taken.error != 0) {
                *error = taken.error;
            }
            return records.size() >= count;
        },
        5000);
    return records;
}

} // namespace InputReaderTesting
