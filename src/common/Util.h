#pragma once

#include <QIODevice>
#include <QString>
#include <QtGlobal>

class QFile;

namespace Orvanta {

// The current date and time in whole seconds since the Unix epoch.
qint64 utilSecondsSinceEpoch();

// "true" or "false".
QString boolToString(bool value);

// The text with its line breaks, tabs, backslashes and other control
// characters written as escapes ("\n", "\t", "\\", "\x1b", DEL as "\x7f"),
// so that text from outside (the bus, device names, X servers) stays on its
// one log line and cannot pass for lines of its own. Characters from 0x80 on
// are kept.
QString escapeForLog(const QString& text);

// Opens the file whose path is the Latin-1 bytes of fileName. The command
// line decodes its paths as Latin-1, one character per byte, so that every
// byte reaches the log unchanged; this turns them back into the very bytes
// given (QFile would encode the characters as UTF-8 and name another file).
// mode is ReadOnly, WriteOnly (truncating) or WriteOnly | Append; a file to
// write is created if need be. Like QFile, refuses a directory. The
// descriptor is close-on-exec and belongs to file.
bool openLatin1Path(QFile& file, const QString& fileName, QIODevice::OpenMode mode);

} // namespace Orvanta
