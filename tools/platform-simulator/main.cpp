// platform-simulator: stands in for the platform's database, assignment and
// session-controller services on the session bus, so that the daemon can be
// run, tested and demonstrated without the rest of the platform.

#include "CallRecorder.h"
#include "PlatformSimulator.h"
#include "SimulatorSettings.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>

namespace {

constexpr char description[] =
    "Owns the platform services \"com.orvanta.DB\", \"com.orvanta.Assignment\" and\n"
    "\"com.orvanta.Controllers.Session\" on the session bus (DBUS_SESSION_BUS_ADDRESS)\n"
    "and answers the methods the daemon calls:\n"
    "  com.orvanta.DB: DeviceGetNumberOfAssignedKeyboards, ...UnassignedKeyboards,\n"
    "    ...AssignedMice, ...UnassignedMice -> int; StationGetTag(s tag) -> s\n"
    "  com.orvanta.Assignment: SelvaneStarted(), DeviceAssignedAuto(s, i, s)\n"
    "  com.orvanta.Controllers.Session: GetLocaleForUserOnDisplay(i display) -> s\n"
    "Every call is printed as one line, e.g.\n"
    "  com.orvanta.Assignment.DeviceAssignedAuto \"/dev/input/event3\" 5 \"KeyboardDevice\"\n"
    "Once all names are owned it prints \"platform-simulator ready\".\n"
    "A settings file holds the same options without dashes, one \"option=value\" a line:\n"
    "  assigned-keyboards=2\n"
    "  tag=name=Station 3\n"
    "  locale=5=de_DE.UTF-8\n"
    "  fail=StationGetTag\n"
    "  delay=com.orvanta.DB=60\n"
    "  hang=com.orvanta.Controllers.Session\n"
    "Counts default to 0; unknown tags and locales are answered with an empty string.\n"
    "A delayed or hung service still records each call when it arrives, and the\n"
    "other services go on answering at once.";

struct ValueOption
{
    const char* name;
    const char* help;
    const char* valueName;
};

// The settings that can also appear in a settings file, in the order of --help.
constexpr ValueOption settingOptions[] = {
    {"assigned-keyboards", "Answer DeviceGetNumberOfAssignedKeyboards with <n>.", "n"},
    {"unassigned-keyboards", "Answer DeviceGetNumberOfUnassignedKeyboards with <n>.", "n"},
    {"assigned-mice", "Answer DeviceGetNumberOfAssignedMice with <n>.", "n"},
    {"unassigned-mice", "Answer DeviceGetNumberOfUnassignedMice with <n>.", "n"},
    {"tag", "Answer StationGetTag(<name>) with <value> (repeatable).", "name=value"},
    {"locale",
     "Answer GetLocaleForUserOnDisplay(<display>) with <locale>; display \"*\" stands for "
     "every other display (repeatable).",
     "display=locale"},
    {"fail", "Answer <method> with the error com.orvanta.Error.Simulated (repeatable).", "method"},
    {"delay",
     "Answer every method of <service> (e.g. com.orvanta.DB) <seconds> seconds late "
     "(repeatable).",
     "service=seconds"},
    {"hang", "Never answer the methods of <service> (repeatable).", "service"},
};

int fail(const QString& message)
{
    fprintf(stderr, "platform-simulator: %s\n", qPrintable(message));
    return 1;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("platform-simulator"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(description));
    parser.addHelpOption();
    const QCommandLineOption configOption(
        QStringLiteral("config"), QStringLiteral("Read settings from <file> before the options."),
        QStringLiteral("file"));
    const QCommandLineOption recordOption(QStringLiteral("record"),
                                          QStringLiteral("Also append every call line to <file>."),
                                          QStringLiteral("file"));
    const QCommandLineOption quietOption(QStringLiteral("quiet"),
                                         QStringLiteral("Do not print the call lines."));
    parser.addOption(configOption);
    parser.addOption(recordOption);
    parser.addOption(quietOption);
    for (const ValueOption& option : settingOptions) {
        parser.addOption(QCommandLineOption(QString::fromLatin1(option.name),
                                            QString::fromLatin1(option.help),
                                            QString::fromLatin1(option.valueName)));
    }
    parser.process(application);
    if (!parser.positionalArguments().isEmpty()) {
        return fail(
            QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first()));
    }

    SimulatorSettings settings;
    QString error;
    if (parser.isSet(configOption) && !settings.loadFile(parser.value(configOption), error)) {
        return fail(error);
    }
    for (const ValueOption& option : settingOptions) {
        const QString name = QString::fromLatin1(option.name);
        const QStringList values = parser.values(name);
        for (const QString& value : values) {
            if (!settings.apply(name, value, error)) {
                return fail(error);
            }
        }
    }

    CallRecorder recorder(!parser.isSet(quietOption), parser.value(recordOption));
    if (!recorder.isValid()) {
        return fail(recorder.getError());
    }
    PlatformSimulator simulator(settings, recorder);
    if (!simulator.start(error)) {
        return fail(error);
    }
    recorder.announce(QStringLiteral("platform-simulator ready"));
    return QCoreApplication::exec();
}
