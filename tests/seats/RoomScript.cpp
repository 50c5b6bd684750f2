#include "RoomScript.h"

namespace {

const QString usbController = QStringLiteral("/sys/devices/pci0000:00/0000:00:05.0/");

struct Sample
{
    const char* name;
    int event;
    const char* port;
    bool keyboard;
};

// kbdC and mouseC fit the ports of kbdB and mouseB.
const Sample samples[] = {
    {"kbdA", 1, "usb1/1-1", true},    {"kbdB", 2, "usb1/1-2", true},
    {"mouseA", 3, "usb1/1-3", false}, {"mouseB", 4, "usb1/1-4", false},
    {"kbdC", 5, "usb1/1-2", true},    {"mouseC", 6, "usb1/1-4", false},
};

const Sample* findSample(const QString& name)
{
    for (const Sample& sample : samples) {
        if (name == QLatin1String(sample.name)) {
            return &sample;
        }
    }
    return nullptr;
}

SeatInfo greeterSeat(const QString& name, int display)
{
    SeatInfo seat;
    seat.name = name;
    seat.canGraphical = true;
    seat.sessionDisplay = QStringLiteral(":%1").arg(display);
    seat.sessionType = QStringLiteral("x11");
    seat.sessionClass = QStringLiteral("greeter");
    return seat;
}

} // namespace

RoomScript::RoomScript()
{
    seats.insert(QStringLiteral("seat0"), greeterSeat(QStringLiteral("seat0"), 0));
    seats.insert(QStringLiteral("seat1"), greeterSeat(QStringLiteral("seat1"), 1));
    start();
}

RoomScript::~RoomScript() = default;

QString RoomScript::pathOf(const QString& device)
{
    const Sample* sample = findSample(device);
    return sample ? QStringLiteral("/dev/input/event%1").arg(sample->event) : device;
}

QString RoomScript::portOf(const QString& device)
{
    const Sample* sample = findSample(device);
    return sample ? usbController + QLatin1String(sample->port) : QString();
}

void RoomScript::start()
{
    driver.reset();
    room.reset();
    numbers = std::make_unique<SeatNumbers>(getStateFile());
    numbers->load();
    room = std::make_unique<Room>(*numbers, config);
    driver = std::make_unique<DaemonDriver>();
    attaching.clear();
}

SystemSnapshot RoomScript::snapshot() const
{
    SystemSnapshot result;
    for (const SeatInfo& seat : seats) {
        result.seats.append(seat);
    }
    for (const QString& name : plugged) {
        const Sample* sample = findSample(name);
        InputDeviceInfo device;
        device.devnode = pathOf(name);
        device.port = portOf(name);
        device.syspath = QStringLiteral("%1/%2:1.0/input/input%3/event%3")
                             .arg(device.port, QString::fromLatin1(sample->port).section('/', 1))
                             .arg(sample->event);
        device.name = name;
        device.keyboard = sample->keyboard;
        device.mouse = !sample->keyboard;
        device.forSeat = QStringLiteral("1");
        device.seat = rules.value(device.port);
        result.inputDevices.append(device);
    }
    return result;
}

QStringList RoomScript::run(const QString& command)
{
    log.clear();
    const QStringList words = command.split(' ', Qt::SkipEmptyParts);
    const QString verb = words.value(0);
    QStringList produced;
    if (verb == QLatin1String("claim") || verb == QLatin1String("claim-by-stranger")) {
        produced = claim(words, verb == QLatin1String("claim"));
    } else {
        produced = updated(verb, words);
    }
    QStringList lines;
    for (const LogCapture::Entry& entry : log.entries()) {
        if (entry.level == Orvanta::Logger::LEVEL_ERROR ||
            entry.level == Orvanta::Logger::LEVEL_WARNING) {
            lines << shorten(Orvanta::Logger::levelToString(entry.level) + ": " + entry.message);
        }
    }
    return lines + produced;
}

QStringList RoomScript::claim(const QStringList& words, bool fromOwner)
{
    const Claim claim{pathOf(words.value(1)), words.value(2).toInt(), words.value(3)};
    const ClaimOutcome outcome = driver->claim(*room, claim, fromOwner, now);
    QStringList lines;
    if (outcome.accepted) {
        attaching.insert(words.value(1), outcome.attach.seat);
        lines << shorten("attach " + outcome.attach.port + " to " + outcome.attach.seat);
    }
    return lines + render(outcome.calls);
}

QStringList RoomScript::updated(const QString& verb, const QStringList& words)
{
    const QString device = words.value(1);
    DaemonCalls calls;
    const auto refresh = [this]() {
        room->update(snapshot());
        numbers->save();
    };
    if (verb == QLatin1String("boot")) {
        plugged = QStringList{"kbdA", "kbdB", "mouseA", "mouseB"};
        refresh();
        calls = driver->reconcile(*room, now);
    } else if (verb == QLatin1String("attached")) {
        rules.insert(portOf(device), attaching.take(device));
        refresh();
        calls = driver->attachSucceeded(*room, pathOf(device), now);
    } else if (verb == QLatin1String("attach-fails")) {
        attaching.remove(device);
        calls = driver->attachFailed(*room, pathOf(device), words.mid(2).join(' '), now);
    } else if (verb == QLatin1String("restart-daemon")) {
        calls = driver->resendAll(*room, now);
    } else if (verb == QLatin1String("reboot")) {
        start();
        refresh();
        calls = driver->resendAll(*room, now);
    } else {
        if (verb == QLatin1String("wait")) {
            now += words.value(1).toLongLong();
        } else if (verb == QLatin1String("unplug")) {
            plugged.removeAll(device);
        } else if (verb == QLatin1String("plug")) {
            plugged.append(device);
        } else if (verb == QLatin1String("replace")) {
            plugged.replace(plugged.indexOf(device), words.value(2));
        } else if (verb == QLatin1String("attach-by-admin")) {
            rules.insert(portOf(device), words.value(2));
        } else if (verb == QLatin1String("release")) {
            for (auto it = rules.begin(); it != rules.end();) {
                it = it.value() == words.value(1) ? rules.erase(it) : std::next(it);
            }
        } else if (verb == QLatin1String("session")) {
            SeatInfo& seat = seats[words.value(1)];
            seat.sessionType = words.value(2) == QLatin1String("none") ? QString() : words.value(2);
            seat.sessionDisplay = words.value(3);
        } else {
            return {"unknown command: " + verb};
        }
        refresh();
        calls = driver->reconcile(*room, now);
    }
    return render(calls);
}

QStringList RoomScript::render(const DaemonCalls& calls) const
{
    QStringList lines;
    for (const DaemonCall& call : calls) {
        lines << shorten(call.toString());
    }
    return lines;
}

QString RoomScript::shorten(QString text) const
{
    for (const Sample& sample : samples) {
        text.replace(pathOf(QLatin1String(sample.name)), QLatin1String(sample.name));
    }
    return text.replace(usbController, QString());
}
