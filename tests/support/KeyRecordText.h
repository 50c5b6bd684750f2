#pragma once

#include "keys/KeyRecord.h"

#include <QStringList>

#include <vector>

// Key records as text, one line each ("press 30", "release 30", "frame end 0"), so that a
// failed comparison of two record lists shows where they differ.
QStringList describeKeyRecords(const std::vector<KeyRecord>& records);
