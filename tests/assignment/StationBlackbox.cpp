#include "StationBlackbox.h"

#include "ComposedPicture.h"
#include "DeviceDescription.h"
#include "TestFiles.h"
#include "XDisplayProbe.h"

#include "overlay/ArtworkPlacement.h"

#include <QDBusMessage>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QSet>

#include <csignal>
#include <cstring>
#include <ctime>
#include <linux/input.h>
#include <sys/wait.h>

namespace {

const QRegularExpression
    statusEnd(QStringLiteral(R"(\] There are \d+ display configuration\(s\) active:$)"));

qint64 wallClockNs()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<qint64>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The state letter of /proc/<pid>/stat ('R', 'S', 'T' for stopped, ...).
char processState(pid_t pid)
{
    const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(pid));
    // The command name in parentheses may hold blanks: the state follows its ')'.
    const qsizetype end = stat.lastIndexOf(')');
    return end >= 0 && end + 2 < stat.size() ? stat.at(end + 2) : '?';
}

// The process's child processes, running or not yet reaped.
QList<pid_t> childrenOf(pid_t pid)
{
    QList<pid_t> children;
    const QString tasks = QStringLiteral("/proc/%1/task").arg(pid);
    for (const QString& task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QByteArray listed = readFile(tasks + '/' + task + QStringLiteral("/children"));
        for (const QByteArray& child : listed.simplified().split(' ')) {
            if (child.toInt() > 0) {
                children.append(child.toInt());
            }
        }
    }
    return children;
}

// Whether a command of the daemon runs or is not yet collected: commands are children of the
// daemon's command launcher, its only child.
bool runsCommand(pid_t daemon)
{
    for (const pid_t launcher : childrenOf(daemon)) {
        if (!childrenOf(launcher).isEmpty()) {
            return true;
        }
    }
    return false;
}

int countMatches(const QStringList& lines, const QRegularExpression& pattern)
{
    int count = 0;
    for (const QString& line : lines) {
        if (pattern.match(line).hasMatch()) {
            ++count;
        }
    }
    return count;
}

} // namespace

const QByteArray StationBlackbox::windowName = QByteArrayLiteral("Press F Key");

StationBlackbox::StationBlackbox()
{
    keysFile = runner.path(QStringLiteral("keys.conf"));
    stampsFile = runner.path(QStringLiteral("combination-stamps"));
    static int instances = 0;
    bus = QDBusConnection::connectToBus(runner.busAddress(),
                                        QStringLiteral("station-blackbox-%1").arg(++instances));
}

StationBlackbox::~StationBlackbox()
{
    if (daemon > 0 && kill(daemon, 0) == 0) {
        kill(daemon, SIGKILL);
        DaemonRunner::waitForExit(daemon);
    }
    QDBusConnection::disconnectFromBus(bus.name());
    simulator.reset();
}

QString StationBlackbox::addKeyboard(const QVector<int>& ledsOn)
{
    return addDevice(
        DeviceDescription::keyboard(QStringLiteral("Station keyboard %1").arg(startLeds.size())),
        ledsOn);
}

QString StationBlackbox::addDevice(const DeviceDescription& description, const QVector<int>& ledsOn)
{
    UmockdevDeviceState state;
    state.ledsOn = ledsOn;
    const QString node = devices.addDevice(description, state);
    if (!node.isEmpty()) {
        startLeds.insert(node, ledsOn);
    }
    return node;
}

void StationBlackbox::removeDevice(const QString& node)
{
    devices.removeDevice(node);
    startLeds.remove(node);
}

bool StationBlackbox::startPlatform(const QStringList& options)
{
    simulator.reset();
    ++platformRuns;
    simulator = std::make_unique<PlatformSimulatorProcess>(
        runner.busAddress(), runner.path(QStringLiteral("calls-%1").arg(platformRuns)), options);
    return simulator->isReady();
}

bool StationBlackbox::startDaemon(const QString& shareDir)
{
    if (!runner.isBusRunning() || !bus.isConnected() ||
        !writeFile(keysFile, keyConfiguration.isEmpty()
                                 ? "KEY_LEFTCTRL:KEY_F1:echo $EPOCHREALTIME >> " +
                                       QFile::encodeName(stampsFile) + "\n"
                                 : keyConfiguration)) {
        return false;
    }
    runner.setShareDir(shareDir);
    runner.setExtraEnvironment({{QStringLiteral("LD_PRELOAD"), UmockdevTestbed::preloadLibrary()},
                                {QStringLiteral("UMOCKDEV_DIR"), devices.rootDir()}});
    daemon = runner.startDaemon({QStringLiteral("-c"), keysFile},
                                DaemonRunner::logLine(QStringLiteral("Info"),
                                                      QStringLiteral("DBusInterface:connect"),
                                                      QStringLiteral("Connection established")));
    return daemon > 0;
}

int StationBlackbox::terminateDaemon(int timeoutMs)
{
    if (daemon <= 0 || kill(daemon, SIGTERM) != 0) {
        return -1;
    }
    const int status = DaemonRunner::waitForExit(daemon, timeoutMs);
    if (status != -1) {
        daemon = 0;
    }
    return status;
}

pid_t StationBlackbox::getLauncher() const
{
    const QList<pid_t> children = daemon > 0 ? childrenOf(daemon) : QList<pid_t>();
    return children.size() == 1 ? children.first() : 0;
}

QString StationBlackbox::stationThreadState(int display) const
{
    const QString tasks = QStringLiteral("/proc/%1/task").arg(daemon);
    const QByteArray name = "station :" + QByteArray::number(display);
    for (const QString& task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString dir = tasks + '/' + task;
        if (readFile(dir + QStringLiteral("/comm")).trimmed() == name.left(15)) {
            return QString(QLatin1Char(processState(task.toInt()))) + ' ' +
                   QString::fromLatin1(readFile(dir + QStringLiteral("/wchan")));
        }
    }
    return QStringLiteral("none");
}

QString StationBlackbox::call(const QString& method, const QVariantList& arguments)
{
    const QDBusMessage reply = bus.call(DaemonRunner::daemonCall(method, arguments));
    if (reply.type() == QDBusMessage::ReplyMessage) {
        return QString();
    }
    return method + ": " + reply.errorName() + " " + reply.errorMessage();
}

qint64 StationBlackbox::introspectMs()
{
    const QDBusMessage introspect = QDBusMessage::createMethodCall(
        QStringLiteral("com.orvanta.selvane"), QStringLiteral("/"),
        QStringLiteral("org.freedesktop.DBus.Introspectable"), QStringLiteral("Introspect"));
    QElapsedTimer timer;
    timer.start();
    const QDBusMessage reply = bus.call(introspect, QDBus::Block, 5000);
    const qint64 elapsed = timer.elapsed();
    return reply.type() == QDBusMessage::ReplyMessage &&
                   reply.arguments().value(0).toString().contains(
                       QLatin1String("com.orvanta.selvane.DBusInterface"))
               ? elapsed
               : -1;
}

qint64 StationBlackbox::combinationLatencyMs(const QString& keyboard, int timeoutMs)
{
    const int before = combinationsRun();
    if (!devices.pressKey(keyboard, KEY_LEFTCTRL) || !devices.pressKey(keyboard, KEY_F1) ||
        !devices.releaseKey(keyboard, KEY_F1) || !devices.releaseKey(keyboard, KEY_LEFTCTRL)) {
        return -1;
    }
    lastReleaseNs = wallClockNs();
    if (!DaemonRunner::waitUntil([&] { return combinationsRun() > before; }, timeoutMs)) {
        return -1;
    }
    const qint64 stamp = stampMicroseconds(DaemonRunner::readLines(stampsFile).value(before));
    return stamp < 0 ? -1 : (stamp - lastReleaseNs / 1000) / 1000;
}

qint64 StationBlackbox::stampMicroseconds(const QString& stamp)
{
    // "seconds.microseconds", with the locale's decimal point.
    const QStringList parts = stamp.trimmed().split(QRegularExpression("[.,]"));
    bool secondsOk = false;
    bool microsecondsOk = false;
    const qint64 seconds = parts.value(0).toLongLong(&secondsOk);
    const qint64 microseconds = parts.value(1).toLongLong(&microsecondsOk);
    return parts.size() == 2 && secondsOk && microsecondsOk ? seconds * 1000000 + microseconds : -1;
}

qint64 StationBlackbox::commandStartedMs() const
{
    // The daemon's line for the last command, in its local time to the millisecond.
    const QStringList started = log().filter(QStringLiteral("] Executing command: "));
    if (started.size() != combinationsRun()) {
        return -1;
    }
    const QDateTime at =
        QDateTime::fromString(started.last().mid(1, 23), QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"));
    return at.isValid() ? at.toMSecsSinceEpoch() - lastReleaseNs / 1000000 : -1;
}

QString StationBlackbox::checkResponsive(const QString& keyboard, qint64 combinationLimitMs,
                                         qint64 introspectLimitMs)
{
    const qint64 combination = combinationLatencyMs(keyboard);
    // The daemon waits for a command to end (its documented behaviour): the
    // question is asked once the command's shell has ended and been reaped,
    // so that its time is the daemon's own.
    DaemonRunner::waitUntil([&] { return !runsCommand(daemon); });
    const qint64 introspect = introspectMs();
    const QString times =
        QStringLiteral("combination %1: %2 ms (its command started after %3 ms), Introspect: %4 ms")
            .arg(combinationsRun())
            .arg(combination)
            .arg(combination < 0 ? -1 : commandStartedMs())
            .arg(introspect);
    qInfo("%s", qPrintable(times));
    if (combination < 0 || combination > combinationLimitMs) {
        return times + QStringLiteral(", more than %1 ms or none; the log ends:\n%2")
                           .arg(combinationLimitMs)
                           .arg(logTail());
    }
    if (introspect < 0 || introspect > introspectLimitMs) {
        return times +
               QStringLiteral(", Introspect more than %1 ms or no answer").arg(introspectLimitMs);
    }
    return QString();
}

int StationBlackbox::combinationsRun() const
{
    return static_cast<int>(DaemonRunner::readLines(stampsFile).size());
}

QStringList StationBlackbox::log() const
{
    return DaemonRunner::readLines(runner.defaultLogFile());
}

bool StationBlackbox::waitForLog(const QString& message, int count, int timeoutMs) const
{
    return DaemonRunner::waitUntil([&] { return logCount(message) >= count; }, timeoutMs);
}

int StationBlackbox::logCount(const QString& message) const
{
    // By its end: the place of a line may name a destructor ("~Name"), which
    // DaemonRunner::logMessage does not take.
    const QString ending = QStringLiteral("] ") + message;
    int count = 0;
    for (const QString& line : log()) {
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(ending)) {
            ++count;
        }
    }
    return count;
}

QString StationBlackbox::logTail(int lines) const
{
    const QStringList all = log();
    return all.mid(qMax(0, static_cast<int>(all.size()) - lines)).join('\n');
}

bool StationBlackbox::passTick()
{
    const int before = countMatches(log(), statusEnd);
    if (!call(QStringLiteral("logStatus")).isEmpty()) {
        return false;
    }
    return DaemonRunner::waitUntil([&] { return countMatches(log(), statusEnd) > before; });
}

void StationBlackbox::takeLedRecords()
{
    for (auto keyboard = startLeds.cbegin(); keyboard != startLeds.cend(); ++keyboard) {
        // Whatever has come by now; the daemon writes a few records a second.
        for (const input_event& event : devices.readEvents(keyboard.key(), 1 << 20, 5)) {
            if (event.type == EV_LED && event.code <= LED_SCROLLL) {
                leds[keyboard.key()][event.code] = event.value;
                ++ledRecordCount[keyboard.key()];
            }
        }
    }
}

StoppableStation::~StoppableStation()
{
    resume();
}

void StoppableStation::kill()
{
    // SIGKILL ends a stopped process as well.
    server.kill();
    stopped = false;
}

bool StoppableStation::stop()
{
    const pid_t pid = server.getPid();
    if (pid <= 0 || ::kill(pid, SIGSTOP) != 0) {
        return false;
    }
    stopped = true;
    return DaemonRunner::waitUntil([pid] { return processState(pid) == 'T'; });
}

bool StoppableStation::resume()
{
    const pid_t pid = server.getPid();
    if (!stopped || pid <= 0) {
        return true;
    }
    stopped = false;
    return ::kill(pid, SIGCONT) == 0 &&
           DaemonRunner::waitUntil([pid] { return processState(pid) != 'T'; });
}

QImage StoppableStation::screen() const
{
    return screen(QRect(QPoint(0, 0), size()));
}

QImage StoppableStation::screen(const QRect& area) const
{
    if (stopped) {
        return QImage();
    }
    const XDisplayProbe probe(server.getDisplayName());
    return probe.isConnected() ? probe.screenshot(area) : QImage();
}

int StoppableStation::overlayWindows() const
{
    if (stopped) {
        return -1;
    }
    const XDisplayProbe probe(server.getDisplayName());
    return probe.isConnected()
               ? static_cast<int>(probe.windowsNamed(StationBlackbox::windowName).size())
               : -1;
}

QString StoppableStation::processSummary() const
{
    const pid_t pid = server.getPid();
    const char state = processState(pid);
    if (state == 'Z') {
        // Looked at, not reaped: the server's owner reaps it.
        siginfo_t ended{};
        waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT);
        return QStringLiteral("ended (%1 %2): %3")
            .arg(ended.si_code == CLD_EXITED ? QStringLiteral("status") : QStringLiteral("signal"))
            .arg(ended.si_status)
            .arg(server.startError());
    }
    const QDir descriptors(QStringLiteral("/proc/%1/fd").arg(pid));
    return QStringLiteral("state %1, %2 descriptors")
        .arg(QLatin1Char(state))
        .arg(descriptors.entryList(QDir::NoDotAndDotDot | QDir::System).size());
}

QSize StoppableStation::size() const
{
    if (stopped) {
        return QSize();
    }
    const XDisplayProbe probe(server.getDisplayName());
    if (!probe.isConnected()) {
        return QSize();
    }
    const xcb_screen_t* root = xcb_setup_roots_iterator(xcb_get_setup(probe.getConnection())).data;
    return QSize(root->width_in_pixels, root->height_in_pixels);
}

namespace StationPictures {

QRect countsArea(const QSize& screen)
{
    // The pictures' footer holds both counts on the baseline y 694 of the
    // 1024x768 picture, in 22-point text from x 128 on; the picture keeps its
    // shape on the screen.
    const ArtworkPlacement placement = ArtworkPlacement::fit(QSize(1024, 768), screen);
    const double scale = placement.getScale();
    return QRect(placement.rounded(64, 660), QSize(qRound(960 * scale), qRound(50 * scale)));
}

bool showsAPicture(const QImage& screen)
{
    if (screen.isNull()) {
        return false;
    }
    QSet<QRgb> colours;
    for (int y = 0; y < screen.height(); y += 4) {
        for (int x = 0; x < screen.width(); x += 4) {
            colours.insert(screen.pixel(x, y));
        }
    }
    return colours.size() > 16;
}

bool differOnlyIn(const QImage& before, const QImage& after, const QRect& area)
{
    if (before.isNull() || after.isNull() || before.size() != after.size() ||
        before.format() != after.format()) {
        return false;
    }
    const QRect inside = area.intersected(before.rect());
    const int bytesPerPixel = before.depth() / 8;
    bool differsInside = false;
    for (int y = 0; y < before.height(); ++y) {
        const uchar* a = before.constScanLine(y);
        const uchar* b = after.constScanLine(y);
        const size_t rowBytes = static_cast<size_t>(before.width()) * bytesPerPixel;
        if (y < inside.top() || y > inside.bottom()) {
            if (std::memcmp(a, b, rowBytes) != 0) {
                return false;
            }
            continue;
        }
        const size_t left = static_cast<size_t>(inside.left()) * bytesPerPixel;
        const size_t right = static_cast<size_t>(inside.right() + 1) * bytesPerPixel;
        if (std::memcmp(a, b, left) != 0 ||
            std::memcmp(a + right, b + right, rowBytes - right) != 0) {
            return false;
        }
        differsInside = differsInside || std::memcmp(a + left, b + left, right - left) != 0;
    }
    return differsInside;
}

namespace {

const QString roomName = QStringLiteral("Reading room");
const QString roomLocation = QStringLiteral("First floor");

int assignedInRound(int round)
{
    return round;
}

int availableInRound(int round)
{
    return 20 + round;
}

} // namespace

QStringList platformOfRound(int round)
{
    return {QStringLiteral("--assigned-keyboards"),
            QString::number(assignedInRound(round)),
            QStringLiteral("--unassigned-keyboards"),
            QString::number(availableInRound(round)),
            QStringLiteral("--tag"),
            QStringLiteral("name=") + roomName,
            QStringLiteral("--tag"),
            QStringLiteral("location=") + roomLocation};
}

OverlayContent pictureOfRound(int round, int stationId)
{
    OverlayContent content;
    content.stationId = stationId;
    content.language = ComposedPicture::installedLanguage(QStringLiteral("en"));
    content.assignmentKey = ComposedPicture::assignmentKeyOf(stationId);
    content.stationName = roomName;
    content.stationLocation = roomLocation;
    content.assigned = assignedInRound(round);
    content.available = availableInRound(round);
    return content;
}

} // namespace StationPictures
