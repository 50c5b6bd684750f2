#pragma once

#include <QString>
#include <QStringList>

// The command line of orvanta-selvane-seats. Without an option the program
// is the service; --status (and --json) print the room, --release SEAT
// unassigns a seat's keyboards and mice; -h prints the usage. One action per
// run: options of two actions, an unknown option or a stray word make the
// command line invalid, with one line saying why.
//
// A value made once by main() from its arguments, before anything else runs.
class SeatsCommandLine
{
public:
    enum class Action
    {
        SERVE,
        STATUS,
        RELEASE,
        HELP,
        INVALID
    };

    // Reads the arguments that follow the program's name. -h or --help ends
    // the reading: later arguments are not examined.
    Action parse(const QStringList& arguments);

    // Whether --status prints JSON (--json, with or without --status).
    bool isJson() const { return json; }
    // The seat of --release.
    QString getSeat() const { return seat; }
    // Why the command line is invalid, one line without its newline.
    QString getError() const { return error; }

    // The usage text, newline-terminated lines.
    static const char* usageText();

private:
    Action invalid(const QString& why);

    bool json = false;
    QString seat;
    QString error;
};
