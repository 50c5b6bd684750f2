#include "common/Logger.h"

#include "common/RemoteObjectProxy.h"
#include "common/Util.h"

#include <QDBusConnection>
#include <QDateTime>
#include <QFileInfo>
#include <QMessageLogContext>
#include <QThread>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace Orvanta {

namespace {
constexpr char logSource[] = "Logger";
constexpr int formatBufferSize = 1024;
// Every entry point holds this lock, so any thread may log: lines reach each
// channel whole and in the order their writes took the lock. Recursive,
// because logging runs into logging on the same thread (levelToString warns,
// a directly connected slot of `message` may log, and the SIGSEGV report may
// interrupt a write in progress).
// A standard mutex rather than Qt's, so that ThreadSanitizer sees the
// station threads' lines handed over.
std::recursive_mutex& loggerMutex()
{
    // Never destroyed: Qt's messages are forwarded here until the very end,
    // after static destructors have run.
    static auto* const mutex = new std::recursive_mutex;
    return *mutex;
}

using LoggerLock = std::lock_guard<std::recursive_mutex>;

// What the crash report may write to, published under the lock.
std::atomic<int> errorFd{-1};
std::atomic<bool> standardOutputTakesErrors{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "read inside signal handlers");
} // namespace

Logger* Logger::instance = nullptr;

Logger::Logger() = default;

Logger::~Logger()
{
    closeLogFile();
    delete dbusProxy;
}

// A channel without a name, or whose file did not open, has no file to close.
void Logger::closeLogFile()
{
    if (logFile->isOpen()) {
        logFile->flush();
        logFile->close();
    }
}

void Logger::publishErrorChannels() const
{
    const bool fileTakesErrors = fileThreshold >= LEVEL_ERROR && logFile->isOpen();
    errorFd = fileTakesErrors ? logFile->handle() : -1;
    standardOutputTakesErrors = standardOutputThreshold >= LEVEL_ERROR;
}

int Logger::errorFileDescriptor()
{
    return errorFd;
}

bool Logger::isStandardOutputTakingErrors()
{
    return standardOutputTakesErrors;
}

void Logger::initialize()
{
    const LoggerLock lock(loggerMutex());
    if (!instance) {
        instance = new Logger();
    }
}

Logger* Logger::getInstance()
{
    const LoggerLock lock(loggerMutex());
    return instance;
}

void Logger::shutDown()
{
    const LoggerLock lock(loggerMutex());
    errorFd = -1;
    standardOutputTakesErrors = false;
    delete instance;
    instance = nullptr;
}

void Logger::enableStandardOutputChannel(Level level)
{
    const LoggerLock lock(loggerMutex());
    if (instance) {
        instance->standardOutputThreshold = level;
        instance->publishErrorChannels();
    }
}

void Logger::enableFileChannel(Level level, QString fileName, bool append)
{
    const LoggerLock lock(loggerMutex());
    if (!instance) {
        return;
    }
    if (instance->fileThreshold != LEVEL_DISABLED) {
        // Already on: only the threshold changes, the open file stays.
        if (level == LEVEL_DISABLED) {
            instance->closeLogFile();
        }
        instance->fileThreshold = level;
        instance->publishErrorChannels();
        return;
    }
    if (level == LEVEL_DISABLED) {
        return;
    }
    instance->logFileName = fileName;
    if (fileName.isEmpty()) {
        instance->fileThreshold = level;
        return;
    }
    // The name comes from the command line, decoded as Latin-1.
    const QIODevice::OpenMode mode = append ? (QIODevice::WriteOnly | QIODevice::Append)
                                            : (QIODevice::WriteOnly | QIODevice::Truncate);
    if (!openLatin1Path(*instance->logFile, fileName, mode)) {
        instance->fileThreshold = level;
        return;
    }
    // Written while the file threshold is still 0, so this line reaches the
    // signal and the other channels but never the file it announces.
    SELVANE_LOG(LEVEL_INFO, "Logfile opened: " + QFileInfo(fileName).absoluteFilePath());
    instance->fileThreshold = level;
    instance->publishErrorChannels();
}

void Logger::reopenFileChannel()
{
    const LoggerLock lock(loggerMutex());
    if (!instance || instance->fileThreshold == LEVEL_DISABLED || instance->logFileName.isEmpty()) {
        return;
    }
    // The new file is opened before the old one is let go: lines written until
    // now stay in the old file, whatever happened to its name, and none is
    // lost when the name cannot be opened.
    auto reopened = std::make_unique<QFile>();
    const QString absolutePath = QFileInfo(instance->logFileName).absoluteFilePath();
    if (!openLatin1Path(*reopened, instance->logFileName,
                        QIODevice::WriteOnly | QIODevice::Append)) {
        SELVANE_LOG(LEVEL_ERROR, "Could not reopen logfile " + absolutePath);
        return;
    }
    // The crash report is given the new file before the old one is closed.
    std::swap(instance->logFile, reopened);
    instance->publishErrorChannels();
    reopened->flush();
    reopened->close();
    SELVANE_LOG(LEVEL_INFO, "Logfile reopened: " + absolutePath);
}

void Logger::enableDBusChannel(Level level, QString connectionName, QString serviceName,
                               QString objectPath, QString sourceName, QString methodName)
{
    const LoggerLock lock(loggerMutex());
    if (!instance) {
        return;
    }
    instance->dbusThreshold = level;
    instance->dbusConnectionName = connectionName;
    instance->dbusServiceName = serviceName;
    instance->dbusObjectPath = objectPath;
    instance->dbusSourceName = sourceName;
    instance->dbusMethodName = methodName;
    if (level != LEVEL_DISABLED) {
        instance->connectToDBus();
    }
}

void Logger::write(Level level, QString file, QString function, int line, QString message)
{
    const LoggerLock lock(loggerMutex());
    if (!instance || level > LEVEL_DEBUG) {
        return;
    }
    const QString time = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss.zzz");
    Q_EMIT instance->message(time, level, file, function, line, message);

    if (level <= instance->standardOutputThreshold) {
        instance->writeToStandardOut(level,
                                     formatForLevel(time, level, file, function, line, message));
    }
    if (level <= instance->fileThreshold) {
        instance->writeToFile(level, formatForLevel(time, level, file, function, line, message));
    }
    if (level <= instance->dbusThreshold) {
        const QString formatted = formatForLevel(time, level, file, function, line, message);
        if (QThread::currentThread() == instance->thread()) {
            instance->writeToDBus(level, formatted);
        } else {
            // The channel's proxy belongs to the logger's thread: a line of a
            // station's thread is sent from there, after the lines before it.
            QMetaObject::invokeMethod(
                instance,
                [level, formatted] {
                    const LoggerLock channelLock(loggerMutex());
                    if (instance && level <= instance->dbusThreshold) {
                        instance->writeToDBus(level, formatted);
                    }
                },
                Qt::QueuedConnection);
        }
    }
}

void Logger::write(Level level, QString file, QString function, int line, const char* format, ...)
{
    const LoggerLock lock(loggerMutex());
    if (!instance) {
        return;
    }
    char buffer[formatBufferSize];
    va_list arguments;
    va_start(arguments, format);
    // One byte less than the buffer, as the daemon always did: at most 1022
    // characters of a long message survive.
    vsnprintf(buffer, formatBufferSize - 1, format, arguments);
    va_end(arguments);
    write(level, file, function, line, QString::fromLatin1(buffer));
}

QString Logger::levelToString(Level level)
{
    switch (level) {
    case LEVEL_DISABLED:
        return QStringLiteral("Disabled");
    case LEVEL_ERROR:
        return QStringLiteral("Error");
    case LEVEL_WARNING:
        return QStringLiteral("Warning");
    case LEVEL_INFO:
        return QStringLiteral("Info");
    case LEVEL_BUG:
        return QStringLiteral("Bug");
    case LEVEL_DEBUG:
        return QStringLiteral("Debug");
    }
    SELVANE_LOG(LEVEL_WARNING, "level is invalid: %d", static_cast<int>(level));
    return QStringLiteral("Debug");
}

Logger::Level Logger::stringToLevel(QString text)
{
    static const struct
    {
        const char* text;
        Level level;
    } levels[] = {{"Disabled", LEVEL_DISABLED}, {"Error", LEVEL_ERROR}, {"Warning", LEVEL_WARNING},
                  {"Info", LEVEL_INFO},         {"Debug", LEVEL_DEBUG}, {"Bug", LEVEL_BUG}};
    for (const auto& entry : levels) {
        if (text == QLatin1String(entry.text)) {
            return entry.level;
        }
    }
    SELVANE_LOG(LEVEL_WARNING,
                "Could not decode string '" + text + "' to a level.  Defaulting to LEVEL_DEBUG");
    return LEVEL_DEBUG;
}

void Logger::forwardQtMessages()
{
    qInstallMessageHandler(forwardQtMessage);
}

void Logger::forwardQtMessage(QtMsgType type, const QMessageLogContext& context,
                              const QString& text)
{
    // Qt does not call a handler from inside itself: a message raised while
    // this one is logged goes to standard error.
    Level level = LEVEL_DEBUG;
    switch (type) {
    case QtDebugMsg:
        level = LEVEL_DEBUG;
        break;
    case QtInfoMsg:
        level = LEVEL_INFO;
        break;
    case QtWarningMsg:
        level = LEVEL_WARNING;
        break;
    case QtCriticalMsg:
    case QtFatalMsg:
        level = LEVEL_ERROR;
        break;
    }
    // Qt's messages quote what callers on the bus sent.
    write(level, QStringLiteral("Qt"), QString::fromLatin1(context.category), context.line,
          escapeForLog(text));
}

QString Logger::formatForLevel(QString time, Level level, QString file, QString function, int line,
                               QString message)
{
    // The message is substituted last, so a "%1" inside it is written unchanged.
    return QStringLiteral("[%1] [%2] [%3:%4:%5] %6")
        .arg(time)
        .arg(levelToString(level))
        .arg(file)
        .arg(function)
        .arg(line)
        .arg(message);
}

void Logger::writeToStandardOut(Level, QString line)
{
    // Qt's debug output goes to standard error with a newline; written here
    // directly so that the channel does not depend on which message handler
    // (console or system journal) the Qt build picks by default.
    const QByteArray bytes = line.toLatin1() + '\n';
    fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
    fflush(stderr);
}

void Logger::writeToFile(Level, QString line)
{
    // The channel counts as on even when its file could not be opened; those
    // lines are lost without a word (QFile would warn about every one).
    if (!logFile->isOpen()) {
        return;
    }
    if (!line.endsWith(QLatin1Char('\n'))) {
        line += QLatin1Char('\n');
    }
    logFile->write(line.toLatin1());
    logFile->flush();
}

void Logger::connectToDBus()
{
    if (dbusThreshold == LEVEL_DISABLED || dbusConnectionName.isEmpty() ||
        dbusSourceName.isEmpty() || dbusServiceName.isEmpty() || dbusObjectPath.isEmpty()) {
        return;
    }
    QDBusConnection connection(dbusConnectionName);
    if (!connection.isConnected()) {
        return;
    }
    delete dbusProxy;
    dbusProxy = new RemoteObjectProxy(dbusServiceName, dbusObjectPath, QString(), connection);
    if (!dbusProxy->isValid()) {
        delete dbusProxy;
        dbusProxy = nullptr;
    }
}

void Logger::writeToDBus(Level level, QString line)
{
    if (!dbusProxy) {
        connectToDBus();
        if (!dbusProxy) {
            return;
        }
    }
    dbusProxy->call(dbusMethodName, dbusSourceName, levelToString(level), line);
}

} // namespace Orvanta
