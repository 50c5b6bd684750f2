// orvanta-selvane-seats: plays the Orvanta platform's part for the input
// daemon with systemd-logind and udev, so that a key pressed on a seat's
// screen gives that seat the keyboard.
//
//   orvanta-selvane-seats            the service (the shared bus is the
//                                    session bus its unit names)
//   orvanta-selvane-seats --status   the seats, their stations and displays,
//                                    every keyboard and mouse; --json for JSON
//   orvanta-selvane-seats --release SEAT
//                                    (root) removes logind's rules of the
//                                    seat's keyboards and mice
//   orvanta-selvane-seats -h         the usage (SeatsCommandLine)
#include "common/Logger.h"
#include "seats/Room.h"
#include "seats/SeatNumbers.h"
#include "seats/SeatsConfig.h"
#include "seats/app/SeatsBridge.h"
#include "seats/app/SeatsCommandLine.h"
#include "seats/system/LogindSeats.h"
#include "seats/system/SeatRules.h"
#include "seats/system/StatusReport.h"
#include "seats/system/UdevInputDevices.h"

#include "Paths.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDeadlineTimer>
#include <QStringList>
#include <QTextStream>
#include <QThread>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr char logSource[] = "Main";
constexpr char rulesDirectory[] = "/etc/udev/rules.d";
// How long --status waits for logind's first reading.
constexpr int statusWaitMs = 5000;
// How long udevd may take to notice changed rule files (it looks every 3 s).
constexpr int udevRulesReadMs = 3500;

// logind's and udev's view now, read once; empty seats when logind did not answer.
SystemSnapshot readSnapshot()
{
    SystemSnapshot snapshot;
    LogindSeats logind(QDBusConnection::systemBus());
    logind.start();
    const QDeadlineTimer deadline(statusWaitMs);
    while (!logind.hasRead() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    }
    if (!logind.hasRead()) {
        std::fprintf(stderr, "logind did not answer within %d s\n", statusWaitMs / 1000);
    }
    snapshot.seats = logind.snapshotSeats();
    UdevInputDevices udev;
    snapshot.inputDevices = udev.snapshotInputDevices();
    snapshot.graphicsCards = udev.snapshotGraphicsCards();
    return snapshot;
}

int printStatus(bool json)
{
    const SystemSnapshot snapshot = readSnapshot();
    // The numbers as recorded; a seat not seen by the service yet has none.
    SeatNumbers numbers(QString::fromLatin1(Orvanta::Paths::seatsStateFile));
    numbers.load();
    SeatsConfig config(QString::fromLatin1(Orvanta::Paths::seatsConfigFile));
    config.load();
    Room room(numbers, config);
    room.update(snapshot);
    QMap<QString, StatusReport::Station> stations;
    for (const Station& station : room.getStations()) {
        stations.insert(station.seat,
                        {station.number, station.displayId >= 0
                                             ? QStringLiteral(":%1").arg(station.displayId)
                                             : QString()});
    }
    const StatusReport report(snapshot, stations);
    QTextStream out(stdout);
    if (json) {
        out << report.json();
    } else {
        out << report.table();
    }
    return 0;
}

// Whether a keyboard or mouse shows the seat in udev's database.
bool showsSeat(const QString& seat)
{
    const QVector<InputDeviceInfo> devices = UdevInputDevices().snapshotInputDevices();
    return std::any_of(devices.cbegin(), devices.cend(), [&seat](const InputDeviceInfo& device) {
        return (device.keyboard || device.mouse) && device.seat == seat;
    });
}

int release(const QString& seat)
{
    if (geteuid() != 0) {
        std::fprintf(stderr, "--release changes udev's rules: run it as root\n");
        return 1;
    }
    if (!SeatNumbers::isSeatName(seat)) {
        std::fprintf(stderr, "not a seat name: %s\n", qPrintable(seat));
        return 1;
    }
    const SeatRules rules(QString::fromLatin1(rulesDirectory));
    SeatRules::Release done = rules.release(seat, readSnapshot());
    // udevd notices removed rule files only when it next looks, up to 3 s
    // later: a device it evaluated before that still shows the seat, and is
    // evaluated again once udevd has read the rules anew.
    if (!done.removedFiles.isEmpty()) {
        const QDeadlineTimer rulesRead(udevRulesReadMs);
        while (showsSeat(seat) && !rulesRead.hasExpired()) {
            QThread::msleep(100);
        }
        if (showsSeat(seat)) {
            const SeatRules::Release again = rules.release(seat, readSnapshot());
            done.retriggered += again.retriggered;
            done.errors += again.errors;
        }
    }
    QTextStream out(stdout);
    for (const QString& file : done.removedFiles) {
        out << "removed " << file << '\n';
    }
    for (const QString& device : done.retriggered) {
        out << "asked udev again about " << device << '\n';
    }
    out.flush();
    for (const QString& error : done.errors) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
    }
    return done.errors.isEmpty() ? 0 : 1;
}

int serve()
{
    // The service's lines go to the journal through standard output.
    Orvanta::Logger::initialize();
    Orvanta::Logger::enableStandardOutputChannel(Orvanta::Logger::LEVEL_INFO);
    // A write to a bus that went away must not end the process.
    signal(SIGPIPE, SIG_IGN);
    const QDBusConnection shared = QDBusConnection::sessionBus();
    if (!shared.isConnected()) {
        SELVANE_LOG(LEVEL_ERROR, "No shared bus: %s", qPrintable(shared.lastError().message()));
        return 1;
    }
    SeatsBridge bridge({QString::fromLatin1(Orvanta::Paths::seatsStateFile),
                        QString::fromLatin1(Orvanta::Paths::seatsConfigFile)},
                       QDBusConnection::systemBus(), shared);
    if (!bridge.start()) {
        return 1;
    }
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char* argv[])
{
    QStringList arguments;
    for (int index = 1; index < argc; ++index) {
        arguments.append(QString::fromLocal8Bit(argv[index]));
    }
    SeatsCommandLine commandLine;
    const SeatsCommandLine::Action action = commandLine.parse(arguments);
    if (action == SeatsCommandLine::Action::HELP) {
        std::fputs(SeatsCommandLine::usageText(), stdout);
        return 0;
    }
    if (action == SeatsCommandLine::Action::INVALID) {
        std::fprintf(stderr, "orvanta-selvane-seats: %s\n", qPrintable(commandLine.getError()));
        std::fputs(SeatsCommandLine::usageText(), stderr);
        return 1;
    }
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("orvanta-selvane-seats"));
    if (action == SeatsCommandLine::Action::RELEASE) {
        return release(commandLine.getSeat());
    }
    if (action == SeatsCommandLine::Action::STATUS) {
        return printStatus(commandLine.isJson());
    }
    return serve();
}
