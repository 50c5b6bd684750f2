// Benchmark of the station overlay's keyboard picture (not a test: it prints figures).
//
// For each screen size (an Xvfb server of its own, 24 bits deep) it times one
// whole DisplayConfiguration::setupKeyboardImage() and its parts, each the
// median of 20 runs:
//
//   whole    setupKeyboardImage(): the calls, the picture, the texts, the upload
//   D-Bus    the four blocking calls it makes to the platform's database
//   load     loadImage("configure-keyboard.png"): read the PNG, scale it to the screen
//   text     the station's strings and the key labels drawn on a copy of the picture
//   upload   createXImage() and redrawWindow(), each time of a freshly loaded picture
//
// Each time is given on the clock and, in brackets, as processor time of this
// program (all its threads; the X server's share of the upload is not in it).
// The clock figures follow whatever else the machine is doing; the load average
// is printed with them. The last column is the start of the MD5 sum of the
// visible screen once it shows the whole picture: a change meant only to make
// the picture faster must leave it as it is.
//
// It draws the shipped pictures and translations of the build tree (its data
// directory, laid out like the installed one) and never the host's: it runs
// itself again through run-isolated.sh, which shows that directory in a private
// mount namespace as the daemon's data directory. A private session bus with
// the platform simulator answers the calls, so no platform is needed.
//
// Run: bench_overlay (from the build tree; it needs root for the namespace, Xvfb
// and dbus-daemon)

#include "OverlayTestBed.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include "assignment/DisplayConfiguration.h"
#include "daemon/DBusInterface.h"
#include "translation/TranslationLanguage.h"

#include <QCryptographicHash>
#include <QDBusAbstractInterface>
#include <QDBusReply>
#include <QFile>
#include <QGuiApplication>
#include <QPainter>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int runs = 20;
constexpr int stationId = 3;
constexpr char isolatedOption[] = "--isolated";
// What the platform simulator answers.
constexpr int assignedKeyboards = 2;
constexpr int unassignedKeyboards = 5;
constexpr char stationName[] = "Front Desk";
constexpr char stationLocation[] = "Room 12";

// Median times of one operation in milliseconds: on the clock, and of processor
// time used by this process (all its threads; the X server's work not included).
struct Timing
{
    double wall = 0;
    double cpu = 0;
};

struct Figures
{
    Timing whole;
    Timing dbus;
    Timing load;
    Timing text;
    Timing upload;
    // The first bytes of the MD5 sum of the screen showing the whole picture.
    QByteArray screen;
};

double processCpuMilliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return (values[values.size() / 2 - 1] + values[values.size() / 2]) / 2;
}

// Times `operation` over `runs` runs, after one run to warm up; `prepare`
// runs untimed before each and `settle` after each.
Timing measureRuns(
    const std::function<void()>& operation, const std::function<void()>& prepare = [] {},
    const std::function<void()>& settle = [] {})
{
    prepare();
    operation();
    settle();
    std::vector<double> wall;
    std::vector<double> cpu;
    for (int i = 0; i < runs; ++i) {
        prepare();
        const Clock::time_point start = Clock::now();
        const double cpuStart = processCpuMilliseconds();
        operation();
        cpu.push_back(processCpuMilliseconds() - cpuStart);
        wall.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        settle();
    }
    return {median(wall), median(cpu)};
}

// The four calls setupKeyboardImage() makes, in its order.
void callDatabase(DBusInterface& dbus)
{
    QDBusAbstractInterface* database = dbus.getDatabaseInterface();
    const QDBusReply<int> assigned =
        database->call(QStringLiteral("DeviceGetNumberOfAssignedKeyboards"));
    const QDBusReply<int> unassigned =
        database->call(QStringLiteral("DeviceGetNumberOfUnassignedKeyboards"));
    const QDBusReply<QString> name =
        database->call(QStringLiteral("StationGetTag"), QStringLiteral("name"));
    const QDBusReply<QString> location =
        database->call(QStringLiteral("StationGetTag"), QStringLiteral("location"));
    if (!assigned.isValid() || !unassigned.isValid() || !name.isValid() || !location.isValid()) {
        std::fprintf(stderr, "a database call failed\n");
    }
}

// What setupKeyboardImage() draws on the loaded picture, drawn on `picture`.
void drawTexts(DisplayConfiguration& display, QImage& picture)
{
    const TranslationLanguage* language = display.getLanguage();
    const double scaleX = display.getScaleX();
    const double scaleY = display.getScaleY();
    QPainter painter(&picture);
    language->renderString(painter, scaleX, scaleY, QStringLiteral("station-num"), stationId);
    language->renderString(painter, scaleX, scaleY, QStringLiteral("station-name"),
                           QString::fromLatin1(stationName));
    language->renderString(painter, scaleX, scaleY, QStringLiteral("station-location"),
                           QString::fromLatin1(stationLocation));
    language->renderString(painter, scaleX, scaleY, QStringLiteral("configure-keyboard"));
    display.renderLabelOnKey(painter);
    language->renderString(painter, scaleX, scaleY, QStringLiteral("configure-keyboard-key"),
                           display.getAssignmentKey().section('_', -1));
    language->renderString(painter, scaleX, scaleY, QStringLiteral("keyboards-available"),
                           unassignedKeyboards);
    language->renderString(painter, scaleX, scaleY, QStringLiteral("keyboards-assigned"),
                           assignedKeyboards);
}

// Shows the whole picture and answers the screen's checksum once the screen
// shows exactly that picture, or an empty one. The window's one-pixel border
// puts the picture one pixel right and down, so its last column and row are
// off the screen.
QByteArray screenChecksum(DisplayConfiguration& display, const XDisplayProbe& probe)
{
    if (!display.setupKeyboardImage()) {
        return QByteArray();
    }
    const QRect visible(QPoint(0, 0), display.getImage().size() - QSize(1, 1));
    const QImage expected = display.getImage().copy(visible).convertToFormat(QImage::Format_RGB32);
    QImage shot;
    const bool shown = DaemonRunner::waitUntil([&] {
        display.update();
        shot = probe.screenshot(visible.translated(1, 1));
        return shot == expected;
    });
    if (!shown) {
        return QByteArray();
    }
    QCryptographicHash hash(QCryptographicHash::Md5);
    for (int y = 0; y < shot.height(); ++y) {
        for (int x = 0; x < shot.width(); ++x) {
            const QRgb pixel = shot.pixel(x, y);
            const std::array<char, 3> rgb = {static_cast<char>(qRed(pixel)),
                                             static_cast<char>(qGreen(pixel)),
                                             static_cast<char>(qBlue(pixel))};
            hash.addData(QByteArrayView(rgb.data(), rgb.size()));
        }
    }
    return hash.result().toHex().left(12);
}

bool measure(OverlayTestBed& bed, const QString& screen, Figures& figures)
{
    XvfbServer server(screen);
    if (!server.start()) {
        std::fprintf(stderr, "Xvfb %s cannot be started\n", qPrintable(screen));
        return false;
    }
    const XDisplayProbe probe(server.getDisplayName());
    std::unique_ptr<DisplayConfiguration> display =
        bed.create(server.getDisplayNumber(), stationId);
    if (!probe.isConnected() || !display->getLanguage() || !display->openDisplay()) {
        std::fprintf(stderr, "no language or no display on %s\n", qPrintable(screen));
        return false;
    }
    // Sets the assignment key and shows the first picture.
    display->configureKeyboard();
    // Between runs the expose events are answered and the server has done
    // everything asked of it, so that no run pays for the one before.
    const auto settle = [&] {
        display->update();
        probe.sync();
    };
    settle();

    bool shown = true;
    figures.whole =
        measureRuns([&] { shown = display->setupKeyboardImage() && shown; }, [] {}, settle);
    figures.dbus = measureRuns([&] { callDatabase(bed.getDBus()); });
    figures.load = measureRuns(
        [&] { shown = display->loadImage(QStringLiteral("configure-keyboard.png")) && shown; });
    QImage picture;
    figures.text = measureRuns([&] { drawTexts(*display, picture); },
                               [&] { picture = display->getImage().copy(); });
    // Each upload gets a freshly loaded picture, as in setupKeyboardImage().
    figures.upload = measureRuns(
        [&] {
            shown = display->createXImage() && shown;
            display->redrawWindow();
        },
        [&] { display->loadImage(QStringLiteral("configure-keyboard.png")); }, settle);
    figures.screen = screenChecksum(*display, probe);
    if (!shown || figures.screen.isEmpty()) {
        std::fprintf(stderr, "the picture could not be made or shown on %s\n", qPrintable(screen));
        return false;
    }
    return true;
}

QByteArray cell(const Timing& timing)
{
    return QByteArray::number(timing.wall, 'f', 1) + " (" + QByteArray::number(timing.cpu, 'f', 1) +
           ")";
}

// Runs this program again in a private mount namespace whose data directory is
// the build tree's; returns only when that cannot be done.
int runIsolated(char* program)
{
    char self[PATH_MAX] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) {
        std::perror("readlink /proc/self/exe");
        return 1;
    }
    char script[] = SELVANE_RUN_ISOLATED;
    char shareOption[] = "--share-dir";
    char dataDir[] = SELVANE_BUILT_DATA_DIR;
    char separator[] = "--";
    char isolated[sizeof isolatedOption];
    std::memcpy(isolated, isolatedOption, sizeof isolatedOption);
    char* arguments[] = {script, shareOption, dataDir, separator, self, isolated, nullptr};
    execv(script, arguments);
    std::fprintf(stderr, "%s: cannot run %s: %s\n", program, script, std::strerror(errno));
    return 1;
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc < 2 || std::strcmp(argv[1], isolatedOption) != 0) {
        return runIsolated(argv[0]);
    }
    // Text rendering needs a GUI application, but no screen of its own.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication app(argc, argv);
    const QString reason = OverlayTestBed::unavailableReason(true);
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "bench_overlay cannot run: %s\n", qPrintable(reason));
        return 77;
    }
    OverlayTestBed bed({"--assigned-keyboards", QString::number(assignedKeyboards),
                        "--unassigned-keyboards", QString::number(unassignedKeyboards), "--tag",
                        QStringLiteral("name=") + stationName, "--tag",
                        QStringLiteral("location=") + stationLocation, "--locale", "*=en"});
    if (!bed.isReady()) {
        std::fprintf(stderr, "the private bus or the platform simulator did not start\n");
        return 1;
    }
    DisplayConfiguration::initTranslations();

    QFile loadAverage(QStringLiteral("/proc/loadavg"));
    // "1.00 0.50 0.25 1/123 4567": the averages over 1, 5 and 15 minutes come first.
    const QByteArray load = loadAverage.open(QIODevice::ReadOnly)
                                ? loadAverage.readLine().split(' ').mid(0, 3).join(' ')
                                : QByteArray();
    std::printf("Median of %d runs in milliseconds on the clock (and of processor time used by\n"
                "this program), station %d (key F%d), no badge; load average %s.\n\n",
                runs, stationId, stationId + 1, load.constData());
    std::printf("| screen | whole setupKeyboardImage() | 4 D-Bus calls | loadImage | text "
                "| createXImage + redrawWindow | screen MD5 |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---|\n");
    bool ok = true;
    for (const char* screen : {"1024x768x24", "1920x1080x24", "3840x2160x24"}) {
        Figures figures;
        if (!measure(bed, QString::fromLatin1(screen), figures)) {
            ok = false;
            continue;
        }
        std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", screen,
                    cell(figures.whole).constData(), cell(figures.dbus).constData(),
                    cell(figures.load).constData(), cell(figures.text).constData(),
                    cell(figures.upload).constData(), figures.screen.constData());
        std::fflush(stdout);
    }
    return ok ? 0 : 1;
}
