#pragma once

#include <QByteArray>
#include <QString>

// File helpers shared by the tests.

// The whole content of a file, or an empty array when it cannot be read.
QByteArray readFile(const QString& fileName);
// Replaces the file's content; false when it cannot be written.
bool writeFile(const QString& fileName, const QByteArray& content);
