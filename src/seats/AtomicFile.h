#pragma once

#include <QByteArray>
#include <QString>

// Replaces a file's content so that a reader, or the file after a power cut,
// sees either the old content or the new one, never a part: the bytes go to
// a new temporary file beside it (mode 0644), which is flushed to disk and
// renamed over the file; the directory is flushed too, so that the rename
// lasts. A symbolic link at the file's name is replaced, not followed.
// Returns false and sets `error` (the step and the system's text) on failure,
// leaving the old file as it was and no temporary file behind.
bool writeFileAtomically(const QString& fileName, const QByteArray& content, QString* error);
