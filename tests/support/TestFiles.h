#pragma once

#include <QByteArray>
#include <QString>

// File helpers shared by the tests.

// The whole content of a file, or an empty array when it cannot be read.
QByteArray readFile(const QString& fileName);
// Replaces the file's content; false when it cannot be written.
bool writeFile(const QString& fileName, const QByteArray& content);
// A shell command that runs until the file `gate` exists or the gate's directory has gone, so
// a test that fails before it writes the gate (and removes its directory) leaves nothing running.
QString commandWaitingFor(const QString& gate);
