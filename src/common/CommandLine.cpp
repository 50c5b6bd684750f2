#include "common/CommandLine.h"

#include "Paths.h"

#include <cstring>
#include <getopt.h>

namespace Orvanta {

namespace {

// The argument-less long options have no short form: getopt_long returns 0
// for them and parse() tells them apart by name.
const option longOptions[] = {{"logfile", required_argument, nullptr, 'l'},
                              {"config", required_argument, nullptr, 'c'},
                              {"start", no_argument, nullptr, 0},
                              {"restart", no_argument, nullptr, 0},
                              {"stop", no_argument, nullptr, 0},
                              {"pid", no_argument, nullptr, 0},
                              {"help", no_argument, nullptr, 'h'},
                              {"grab-unassigned", no_argument, nullptr, 0},
                              {nullptr, 0, nullptr, 0}};

} // namespace

CommandLine::Result CommandLine::parse(int argc, char* argv[])
{
    logFileName = QString::fromLatin1(Paths::defaultLogFile);
    configFileName.clear();
    pidRequested = false;
    stopRequested = false;
    restartRequested = false;
    grabUnassigned = false;

    // 0 makes glibc's getopt start afresh, so a second parse reads its own argv.
    optind = 0;
    int optionIndex = 0;
    int option;
    while ((option = getopt_long(argc, argv, "l:c:h", longOptions, &optionIndex)) != -1) {
        switch (option) {
        case 'h':
            return RESULT_HELP;
        case '?':
            return RESULT_INVALID;
        // Paths are bytes: read as Latin-1, each byte is one character and
        // reaches the log as it was given. openLatin1Path opens them.
        case 'l':
            logFileName = QString::fromLatin1(optarg);
            break;
        case 'c':
            configFileName = QString::fromLatin1(optarg);
            break;
        case 0: {
            const char* name = longOptions[optionIndex].name;
            // "start" is the default action and sets nothing.
            if (strcmp(name, "restart") == 0) {
                restartRequested = true;
            } else if (strcmp(name, "stop") == 0) {
                stopRequested = true;
            } else if (strcmp(name, "pid") == 0) {
                pidRequested = true;
            } else if (strcmp(name, "grab-unassigned") == 0) {
                grabUnassigned = true;
            }
            break;
        }
        default:
            break;
        }
    }
    return RESULT_RUN;
}

const char* CommandLine::usageText()
{
    // One literal per printed line, so the text reads as it is printed.
    // clang-format off
    return
        "orvanta-selvane: Scans keyboard inputs for specific key combinations and then acts upon them\n"
        "  -l --logfile   name of the log file.  This is optional.  If not specified, the default log file is used\n"
        "  -c --config    name of the configuration file.\n"
        "  --start        start the selvane daemon.\n"
        "  --restart      start the selvane daemon.\n"
        "  --stop         stop the selvane daemon.\n"
        "  --pid          return the pid of the selvane daemon.\n"
        "  -h --help      prints this help message\n"
        "  --grab-unassigned  take unassigned keyboards and mice for this program alone.\n";
    // clang-format on
}

} // namespace Orvanta
