#pragma once

#include <QString>

namespace Orvanta {

// The daemon's command line, read with getopt_long. Starting is the default
// action; --pid, --stop and --restart only set flags that the entry point
// examines once every option has been read.
class CommandLine
{
public:
    enum Result
    {
        RESULT_RUN,    // every option was read
        RESULT_HELP,   // -h or --help: later options were not examined
        RESULT_INVALID // unknown option or missing argument; getopt_long has complained
    };

    // Reads the options of argv. getopt_long may reorder argv's elements.
    Result parse(int argc, char* argv[]);

    // The usage text, nine newline-terminated lines.
    static const char* usageText();

    // The paths as given, one Latin-1 character per byte; open them with
    // openLatin1Path (common/Util.h).
    QString getLogFileName() const { return logFileName; }
    QString getConfigFileName() const { return configFileName; }
    bool isPidRequested() const { return pidRequested; }
    bool isStopRequested() const { return stopRequested; }
    bool isRestartRequested() const { return restartRequested; }
    // Whether the daemon takes the unassigned keyboards and mice for itself while an overlay
    // is drawn, so that the keys typed to claim one reach no session.
    bool isGrabUnassignedRequested() const { return grabUnassigned; }

private:
    QString logFileName;
    QString configFileName;
    bool pidRequested = false;
    bool stopRequested = false;
    bool restartRequested = false;
    bool grabUnassigned = false;
};

} // namespace Orvanta
