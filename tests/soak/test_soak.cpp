// A seeded random walk through the built daemon's states, checked against a
// model of what it is meant to do (SoakModel): platform calls of every kind,
// sensible and not, devices plugged and unplugged, keys typed on them, a
// station's X server killed and started again, pauses. After every few steps
// the daemon's status, its calls to the platform, the commands it ran, its Bug
// and Error lines, the LEDs, the overlay windows and its descriptors and memory
// are compared with the model.
//
// A failure names its seed and step and leaves two replay files in the current
// directory: the walk up to the failure and a shrunk one (steps dropped while
// it still fails). Options, before QtTest's own:
//   --steps N --seed S   one walk of N steps from seed S
//   --replay FILE        the steps of a replay file
//   --no-shrink          report a failure without shrinking it
// Without them: fixed walks, and every replay file of the repository.
#include "DaemonRunner.h"
#include "SoakRun.h"
#include "input/InputKeyCode.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QtTest>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>

namespace {

struct SoakOptions
{
    std::optional<qint64> steps;
    std::optional<quint64> seed;
    QString replay;
    bool shrink = true;
};
SoakOptions options;

// The walks the test command runs: 2,000 steps in all.
constexpr int fixedWalks = 4;
constexpr int fixedWalkSteps = 500;
constexpr int compareEvery = 10;
// A walk runs in episodes, each on a fresh daemon and fresh devices: umockdev's
// preload library in the daemon keeps a connection to a node's ioctl handler
// for every open, also after the close, and after some hundreds of opens it
// meets a reset connection and aborts the process ("Error communicating with
// ioctl socket"). One walk of 100,000 steps met that once in 500 steps.
constexpr int episodeSteps = 250;
// Shrinking restarts everything for each try; it stops after this long.
constexpr int shrinkMinutes = 15;

struct Outcome
{
    bool failed = false;
    int first = 0; // the first step of the failed episode
    int step = -1; // the index of the step after which the failure was seen
    QString message;
};

// Runs steps on fresh daemons, one per episode: `steps` as given, or, with a
// generator, `count` new steps appended to it as they are drawn.
Outcome runWalk(QList<SoakStep>& steps, SoakGenerator* generator, qint64 count, int every)
{
    for (qint64 first = 0; first < count; first += episodeSteps) {
        const qint64 end = qMin(count, first + episodeSteps);
        const int episode = static_cast<int>(first);
        SoakRun run;
        const QString error = run.start();
        if (!error.isEmpty()) {
            return {true, episode, episode - 1,
                    QStringLiteral("the walk could not start: ") + error};
        }
        for (qint64 i = first; i < end; ++i) {
            if (generator) {
                steps.append(generator->next(run.getWorld(), run.getModel()));
            }
            const QString applyError = run.apply(steps.at(i));
            if (!applyError.isEmpty()) {
                return {true, episode, static_cast<int>(i),
                        applyError + QStringLiteral("\nthe log ends:\n") + run.logTail()};
            }
            if ((i + 1 - first) % every == 0 || i + 1 == end) {
                const QString mismatch = run.compare(static_cast<int>(i + 1 - first));
                if (!mismatch.isEmpty()) {
                    return {true, episode, static_cast<int>(i), mismatch};
                }
            }
        }
        qInfo("steps %lld to %lld: %s", static_cast<long long>(first + 1),
              static_cast<long long>(end), qPrintable(run.summary()));
    }
    return {};
}

Outcome replay(QList<SoakStep> steps, int every)
{
    return runWalk(steps, nullptr, steps.size(), every);
}

// Drops steps, halving chunks, as long as what is left still fails.
QList<SoakStep> shrink(QList<SoakStep> steps)
{
    const QDeadlineTimer deadline{std::chrono::minutes(shrinkMinutes)};
    for (qsizetype chunk = steps.size() / 2; chunk >= 1 && !deadline.hasExpired(); chunk /= 2) {
        for (qsizetype at = 0; at < steps.size() && !deadline.hasExpired();) {
            QList<SoakStep> candidate = steps;
            candidate.remove(at, qMin(chunk, candidate.size() - at));
            const Outcome outcome = replay(candidate, 1);
            if (outcome.failed) {
                steps = candidate.mid(0, outcome.step + 1);
            } else {
                at += chunk;
            }
        }
    }
    return steps;
}

// Reports a failed walk: replays it once to see that it reproduces, shrinks it
// and writes both as replay files.
QString report(const QString& name, const QList<SoakStep>& taken, const Outcome& outcome)
{
    const QList<SoakStep> walked = taken.mid(outcome.first, outcome.step + 1 - outcome.first);
    // One substitution for all: a step's text may itself hold "%2" (a
    // percent-encoded path).
    QString text =
        QStringLiteral("%1: failed after step %2 (%3), in the episode from step %4:\n%5\n")
            .arg(name, QString::number(outcome.step + 1),
                 walked.isEmpty() ? QString() : walked.last().toLine(),
                 QString::number(outcome.first + 1), outcome.message);
    if (walked.isEmpty()) {
        return text;
    }
    const QString fileName = QDir::current().filePath(
        QStringLiteral("soak-%1.steps").arg(QString(name).replace(QLatin1Char(' '), '-')));
    writeSteps(fileName, walked, name + QStringLiteral(": ") + outcome.message.section('\n', 0, 0));
    text += QStringLiteral("the walk up to there: %1\n").arg(fileName);
    const Outcome again = replay(walked, 1);
    if (!again.failed) {
        return text + QStringLiteral("its replay did NOT reproduce the failure\n");
    }
    if (!options.shrink) {
        return text + QStringLiteral("its replay fails with:\n%1\n").arg(again.message);
    }
    const QList<SoakStep> shrunk = shrink(walked);
    const QString shrunkName = QString(fileName).replace(".steps", "-shrunk.steps");
    writeSteps(shrunkName, shrunk,
               name + QStringLiteral(", shrunk: ") + again.message.section('\n', 0, 0));
    const Outcome last = replay(shrunk, 1);
    return text + QStringLiteral("shrunk to %1 steps: %2\nwhich fail with:\n%3\n")
                      .arg(shrunk.size())
                      .arg(shrunkName, last.message);
}

QStringList repositoryReplays()
{
    const QDir dir(QStringLiteral(SELVANE_SOAK_REPLAY_DIR));
    QStringList files;
    for (const QString& file :
         dir.entryList({QStringLiteral("*.steps")}, QDir::Files, QDir::Name)) {
        files.append(dir.filePath(file));
    }
    return files;
}

} // namespace

class SoakTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void walk_data()
    {
        QTest::addColumn<quint64>("seed");
        QTest::addColumn<qint64>("steps");
        if (!options.replay.isEmpty()) {
            return;
        }
        if (options.steps || options.seed) {
            const quint64 seed = options.seed.value_or(1);
            QTest::addRow("seed %llu", static_cast<unsigned long long>(seed))
                << seed << options.steps.value_or(fixedWalkSteps * fixedWalks);
            return;
        }
        for (quint64 seed = 1; seed <= fixedWalks; ++seed) {
            QTest::addRow("seed %llu", static_cast<unsigned long long>(seed))
                << seed << qint64(fixedWalkSteps);
        }
    }
    void walk()
    {
        if (!QTest::currentDataTag()) {
            QSKIP("only a replay asked for");
        }
        QFETCH(quint64, seed);
        QFETCH(qint64, steps);
        SoakGenerator generator(seed);
        QList<SoakStep> taken;
        const Outcome outcome = runWalk(taken, &generator, steps, compareEvery);
        if (outcome.failed) {
            QFAIL(qPrintable(report(QStringLiteral("seed %1").arg(seed), taken, outcome)));
        }
        qInfo("%lld steps from seed %llu agree with the model", static_cast<long long>(steps),
              static_cast<unsigned long long>(seed));
    }

    void replays_data()
    {
        QTest::addColumn<QString>("file");
        if (options.steps || options.seed) {
            return;
        }
        const QStringList files =
            options.replay.isEmpty() ? repositoryReplays() : QStringList{options.replay};
        for (const QString& file : files) {
            QTest::newRow(qPrintable(QFileInfo(file).fileName())) << file;
        }
    }
    void replays()
    {
        if (!QTest::currentDataTag()) {
            QSKIP("no replay file asked for");
        }
        QFETCH(QString, file);
        QList<SoakStep> steps;
        QString error;
        QVERIFY2(readSteps(file, steps, error), qPrintable(error));
        const Outcome outcome = replay(steps, 1);
        if (outcome.failed) {
            QFAIL(qPrintable(report(QFileInfo(file).baseName(), steps, outcome)));
        }
    }
};

namespace {

// Takes the soak options out of the arguments and leaves QtTest's.
bool takeOptions(int& argc, char** argv)
{
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        bool ok = true;
        if (!std::strcmp(argv[i], "--steps") && hasValue) {
            options.steps = QByteArray(argv[++i]).toLongLong(&ok);
        } else if (!std::strcmp(argv[i], "--seed") && hasValue) {
            options.seed = QByteArray(argv[++i]).toULongLong(&ok);
        } else if (!std::strcmp(argv[i], "--no-shrink")) {
            options.shrink = false;
        } else if (!std::strcmp(argv[i], "--replay") && hasValue) {
            options.replay = QString::fromLocal8Bit(argv[++i]);
        } else {
            argv[kept++] = argv[i];
        }
        if (!ok) {
            std::fprintf(stderr, "not a number: %s\n", argv[i]);
            return false;
        }
    }
    argc = kept;
    argv[argc] = nullptr;
    return true;
}

} // namespace

// Skipped (77) without a private mount namespace, dbus-daemon or umockdev.
int main(int argc, char* argv[])
{
    if (!takeOptions(argc, argv)) {
        return 2;
    }
    // The daemon inherits this: glibc would give each station thread a heap
    // arena of its own, which keeps what the thread touched after it ends and
    // so hides a leak in the resident memory's noise.
    qputenv("GLIBC_TUNABLES", "glibc.malloc.arena_max=1");
    // QtTest ends a test function after five minutes; a long walk takes far
    // longer, and shrinking a failure up to a quarter of an hour more.
    if (qEnvironmentVariableIsEmpty("QTEST_FUNCTION_TIMEOUT")) {
        const qint64 budgetMs =
            options.steps.value_or(fixedWalkSteps * fixedWalks) * 200 + 20 * 60 * 1000;
        qputenv("QTEST_FUNCTION_TIMEOUT",
                QByteArray::number(std::min<qint64>(budgetMs, std::numeric_limits<int>::max())));
    }
    // Key names to codes for the keys the walk types.
    InputKeyCode::buildTable();
    const int status = runUnlessUnavailable<QCoreApplication, SoakTest>(
        argc, argv, &DaemonRunner::unavailableReasonWithEmulatedInput);
    InputKeyCode::cleanupTable();
    return status;
}

#include "test_soak.moc"
