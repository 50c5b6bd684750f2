#include "assignment/DisplayConfiguration.h"
#include "common/CommandLine.h"
#include "common/CrashHandler.h"
#include "common/Daemon.h"
#include "common/Logger.h"
#include "common/Privileges.h"
#include "common/SignalRelay.h"
#include "daemon/Selvane.h"
#include "input/InputKeyCode.h"
#include "sequences/CommandLauncher.h"

#include "Paths.h"

#include <QCoreApplication>
#include <QGuiApplication>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/prctl.h>
#include <unistd.h>

namespace {
constexpr char logSource[] = "Main";
} // namespace

// Runs on the event loop (see SignalRelay), not inside the signal handler.
void quit_handler(int)
{
    SELVANE_LOG(LEVEL_INFO, "Received signal to quit");
    QCoreApplication::quit();
}

// Runs on the event loop too; the reload itself waits for the next update.
void reload_handler(Selvane& selvane)
{
    SELVANE_LOG(LEVEL_INFO, "Received signal to reload");
    selvane.requestReload();
}

int main(int argc, char* argv[])
{
    // The daemon draws its overlays itself through xcb, so Qt never needs a
    // display: it always runs on the offscreen platform. That is asked for on
    // a private argument vector rather than through QT_QPA_PLATFORM, which the
    // commands the daemon runs would inherit. getopt_long reads the real argv.
    char platformOption[] = "-platform";
    char platformName[] = "offscreen";
    char* qtArgv[] = {argv[0], platformOption, platformName, nullptr};
    int qtArgc = 3;
    // Qt's start-up chatter (such as the XDG_RUNTIME_DIR notice) goes to the
    // log, not to the terminal, where the command line's answers are exact.
    Orvanta::Logger::forwardQtMessages();
    QGuiApplication app(qtArgc, qtArgv);
    QCoreApplication::setApplicationName(QStringLiteral("selvane"));
    QCoreApplication::setApplicationVersion(QStringLiteral("1.0"));
    QCoreApplication::setOrganizationName(QStringLiteral("Orvanta"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("orvanta.com"));
    // Registered before the logger runs, so this first registration logs nothing.
    DisplayConfiguration::initTranslations();
    InputKeyCode::buildTable();
    // Emptied on every way out of the process, including the exit(1) of a
    // start that fails.
    std::atexit(InputKeyCode::cleanupTable);

    Orvanta::CommandLine commandLine;
    switch (commandLine.parse(argc, argv)) {
    case Orvanta::CommandLine::RESULT_HELP:
        printf("%s", Orvanta::CommandLine::usageText());
        return 0;
    case Orvanta::CommandLine::RESULT_INVALID:
        printf("%s", Orvanta::CommandLine::usageText());
        return 1;
    case Orvanta::CommandLine::RESULT_RUN:
        break;
    }

    const QString pidFile = QString::fromLatin1(Orvanta::Paths::pidFile);
    const QString programPath = QCoreApplication::applicationFilePath();
    if (commandLine.isPidRequested()) {
        printf("%d\n", Orvanta::Daemon::getPid(pidFile));
        return 0;
    }
    if (commandLine.isStopRequested()) {
        Orvanta::Daemon::stop(pidFile, programPath);
        return 0;
    }
    if (commandLine.isRestartRequested()) {
        // Does not wait: if the old daemon is still alive at the running check
        // below, the restart ends as "already running".
        Orvanta::Daemon::stop(pidFile, programPath);
    }

    if (Orvanta::Daemon::isProgramRunning(pidFile, programPath)) {
        printf("Program is already running.  Stop the existing program before starting another "
               "one\n");
        return 1;
    }
    if (commandLine.getConfigFileName().isEmpty()) {
        // The logger is not initialised yet: this line reaches no channel and
        // the exit status is all the caller sees.
        SELVANE_LOG(LEVEL_ERROR, "Missing config file parameter.");
        return 1;
    }

    // The pid file's directory belongs to the service account: what sits at
    // the name must be a plain file, or a write through it could land anywhere.
    if (!Orvanta::Daemon::isUsablePidFilePath(pidFile)) {
        fprintf(stderr, "Refusing pid file %s: not a regular file\n", Orvanta::Paths::pidFile);
        return 1;
    }

    Orvanta::CrashHandler::install(pidFile);
    // A write to a display whose server has gone, or has stopped reading,
    // must fail with EPIPE and cost that station its connection, not end the
    // daemon. The launcher and the commands it starts get the default back.
    signal(SIGPIPE, SIG_IGN);
    // SIGHUP asks for a reload. The relay hands signals over only once the
    // event loop runs, when the central object exists.
    std::unique_ptr<Selvane> selvane;
    const Orvanta::SignalRelay signalRelay({SIGINT, SIGTERM, SIGHUP}, [&selvane](int signalNumber) {
        if (signalNumber != SIGHUP) {
            quit_handler(signalNumber);
        } else if (selvane) {
            reload_handler(*selvane);
        }
    });

    Orvanta::Logger::initialize();
    Orvanta::Logger::enableFileChannel(Orvanta::Logger::LEVEL_DEBUG, commandLine.getLogFileName(),
                                       true);

    // The parent exits with status 0 in here. Without a pid file the daemon
    // still runs, only --pid, --stop and the running check cannot see it.
    Orvanta::Daemon::start(pidFile);
    // A start that fails from here on (exit(1) when the bus cannot be had)
    // takes its pid file with it, as the normal end below does.
    std::atexit([] { Orvanta::Daemon::removeOwnPidFile(Orvanta::Paths::pidFile); });
    // Still the only thread of the child: the launcher forks from a copy that holds no device,
    // and the capabilities given up here stay given up in every thread started later.
    CommandLauncher::start();
    if (geteuid() != 0 && !Orvanta::Privileges::dropCapabilities()) {
        SELVANE_LOG(LEVEL_ERROR, "Could not give up the daemon's capabilities: %s",
                    strerror(errno));
    }
    // No process of the daemon's account, a command least of all, may trace it or take its
    // descriptors.
    if (!Orvanta::Privileges::makeUndumpable()) {
        SELVANE_LOG(LEVEL_ERROR, "Could not make the daemon undumpable: %s", strerror(errno));
    }
#ifdef __SANITIZE_ADDRESS__
    // LeakSanitizer looks for leaks at exit from a thread that traces the process, which an
    // undumpable process refuses; the sanitizer builds let it look once the daemon is done.
    std::atexit([] { prctl(PR_SET_DUMPABLE, 1, 0, 0, 0); });
#endif
    // Once more in the daemon child, now that its registration can be logged.
    DisplayConfiguration::initTranslations();

    selvane = std::make_unique<Selvane>(commandLine.getConfigFileName(),
                                        commandLine.isGrabUnassignedRequested());
    const int result = QCoreApplication::exec();
    selvane.reset();

    SELVANE_LOG(LEVEL_INFO, "selvane is exiting with exit code %d", result);
    Orvanta::Daemon::removeOwnPidFile(Orvanta::Paths::pidFile);
    Orvanta::Logger::shutDown();
    return 0;
}
