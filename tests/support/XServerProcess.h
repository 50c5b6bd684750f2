#pragma once

#include <QString>
#include <QStringList>

#include <sys/types.h>

// One X server program run by a test. It is started with "-displayfd": the
// server writes its display number to that descriptor once it accepts
// clients (after choosing a free number itself when the arguments name none),
// so starting waits for exactly that, with a deadline, and never a fixed time.
// The destructor ends the server.
class XServerProcess
{
public:
    XServerProcess() = default;
    ~XServerProcess();

    XServerProcess(const XServerProcess&) = delete;
    XServerProcess& operator=(const XServerProcess&) = delete;

    // Starts `program` (looked up in PATH) with `arguments` and "-displayfd",
    // its standard output and error going to `outputFile`, or nowhere when it
    // is empty. Returns the display number that the server announced; -1 when
    // it could not be run, ended or stayed silent for too long (it is then
    // killed).
    int start(const QString& program, const QStringList& arguments,
              const QString& outputFile = QString());
    // Sends `signal` and reaps the server; one that does not end in time is
    // killed. SIGTERM lets it remove its lock file and socket.
    void stop(int signal);

    bool isRunning() const { return pid > 0; }
    // What went wrong, from the "Fatal server error:" of a server's output
    // file (the last one, as restarts append to it).
    static QString fatalError(const QString& outputFile);
    // The server's process id, for a test that signals it (SIGSTOP,
    // SIGCONT); -1 when it is not running.
    pid_t getPid() const { return pid; }

private:
    pid_t pid = -1;
};
