#pragma once

#include <QFile>
#include <QObject>
#include <QString>

#include <memory>

namespace Orvanta {

class RemoteObjectProxy;

// Process-wide logging singleton. Every message is timestamped, emitted as the
// `message` signal and written to each channel (standard output, file, D-Bus
// method) whose threshold is at least the message's level. Threshold 0 turns a
// channel off.
//
// The instance lives on the main thread, which sets it up and tears it down;
// write() may be called from any thread (the station threads log too): a
// recursive mutex guards the channels, and a line for the D-Bus channel from
// another thread is handed to the logger's own thread with a queued call.
class Logger : public QObject
{
    Q_OBJECT

public:
    enum Level : int
    {
        LEVEL_DISABLED = 0,
        LEVEL_ERROR = 1,
        LEVEL_WARNING = 2,
        LEVEL_INFO = 3,
        LEVEL_BUG = 4,
        LEVEL_DEBUG = 5
    };

    ~Logger() override;

    static void initialize();
    static Logger* getInstance();
    static void shutDown();

    static void enableStandardOutputChannel(Level level);
    static void enableFileChannel(Level level, QString fileName, bool append);
    // Closes the file channel's file and opens its name again, appending, so
    // that a log moved away by rotation is followed by a new file at the same
    // path. Only while the channel is on and has a name; when the name cannot
    // be opened, the open file stays.
    static void reopenFileChannel();
    static void enableDBusChannel(Level level, QString connectionName, QString serviceName,
                                  QString objectPath, QString sourceName, QString methodName);

    static void write(Level level, QString file, QString function, int line, QString message);
    static void write(Level level, QString file, QString function, int line, const char* format,
                      ...) __attribute__((format(printf, 5, 6)));

    static QString levelToString(Level level);
    static Level stringToLevel(QString text);

    // For the crash report, which may not take the lock: the descriptor of
    // the file channel's file while that channel takes Error lines (-1 when
    // not), and whether the standard-output channel takes them. Kept current
    // as the channels change, the file's reopening included. Async-signal-safe.
    static int errorFileDescriptor();
    static bool isStandardOutputTakingErrors();

    // Sends Qt's own messages (qDebug, qWarning, ... from inside Qt) through
    // write() with the source file "Qt" and the message's category as function,
    // instead of to standard error. They are dropped while there is no
    // instance. Callable before the application object exists.
    static void forwardQtMessages();

Q_SIGNALS:
    void message(QString time, Logger::Level level, QString file, QString function, int line,
                 QString mesg);

private:
    Logger();

    static void forwardQtMessage(QtMsgType type, const QMessageLogContext& context,
                                 const QString& text);
    static QString formatForLevel(QString time, Level level, QString file, QString function,
                                  int line, QString message);
    void closeLogFile();
    void publishErrorChannels() const;
    void writeToStandardOut(Level level, QString line);
    void writeToFile(Level level, QString line);
    void connectToDBus();
    void writeToDBus(Level level, QString line);

    Level fileThreshold = LEVEL_DISABLED;
    // The file is opened through its descriptor (openLatin1Path), so QFile
    // keeps no name: the channel's own is kept for reopening.
    QString logFileName;
    std::unique_ptr<QFile> logFile = std::make_unique<QFile>();
    Level standardOutputThreshold = LEVEL_DISABLED;
    Level dbusThreshold = LEVEL_DISABLED;
    QString dbusConnectionName;
    QString dbusSourceName;
    QString dbusServiceName;
    QString dbusObjectPath;
    QString dbusMethodName;
    RemoteObjectProxy* dbusProxy = nullptr;

    static Logger* instance;
};

} // namespace Orvanta

// Logs through the singleton with the calling function's bare name and line.
// Each source file defines `logSource`, the class's file name without extension:
//     static constexpr char logSource[] = "EventDevice";
// The level is written without its scope: SELVANE_LOG(LEVEL_INFO, "Opened %s", path).
#define SELVANE_LOG(level, ...)                                                                    \
    ::Orvanta::Logger::write(::Orvanta::Logger::level, QString::fromLatin1(logSource),             \
                             QString::fromLatin1(__func__), __LINE__, __VA_ARGS__)
