#include "seats/app/SeatsCommandLine.h"

SeatsCommandLine::Action SeatsCommandLine::parse(const QStringList& arguments)
{
    json = false;
    seat.clear();
    error.clear();
    bool status = false;
    bool release = false;
    for (int index = 0; index < arguments.size(); ++index) {
        const QString& argument = arguments.at(index);
        if (argument == QLatin1String("-h") || argument == QLatin1String("--help")) {
            return Action::HELP;
        }
        if (argument == QLatin1String("--status")) {
            status = true;
        } else if (argument == QLatin1String("--json")) {
            json = true;
        } else if (argument == QLatin1String("--release")) {
            if (index + 1 == arguments.size() ||
                arguments.at(index + 1).startsWith(QLatin1Char('-'))) {
                return invalid(QStringLiteral("--release needs a seat, such as seat1"));
            }
            release = true;
            seat = arguments.at(++index);
        } else if (argument.startsWith(QLatin1String("--release="))) {
            release = true;
            seat = argument.mid(argument.indexOf(QLatin1Char('=')) + 1);
        } else if (argument.startsWith(QLatin1Char('-'))) {
            return invalid(QStringLiteral("unknown option '%1'").arg(argument));
        } else {
            return invalid(QStringLiteral("unexpected argument '%1'").arg(argument));
        }
    }
    if (release && (status || json)) {
        return invalid(QStringLiteral("--release does not go with --status or --json"));
    }
    if (release) {
        return Action::RELEASE;
    }
    return status || json ? Action::STATUS : Action::SERVE;
}

SeatsCommandLine::Action SeatsCommandLine::invalid(const QString& why)
{
    error = why;
    return Action::INVALID;
}

const char* SeatsCommandLine::usageText()
{
    // One literal per printed line, so the text reads as it is printed.
    // clang-format off
    return
        "orvanta-selvane-seats: Gives each systemd-logind seat the keyboard and mouse pressed on its screen\n"
        "  (no option)     run as the service that plays the Orvanta platform for orvanta-selvane.\n"
        "  --status        print the seats, their stations and displays, every keyboard and mouse.\n"
        "  --json          print the same as JSON.\n"
        "  --release SEAT  (as root) unassign the keyboards and mice of SEAT.\n"
        "  -h --help       prints this help message\n";
    // clang-format on
}
