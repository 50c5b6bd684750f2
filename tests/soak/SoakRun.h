#pragma once

#include "SoakGenerator.h"
#include "SoakModel.h"
#include "SoakStep.h"
#include "StationBlackbox.h"

#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QString>
#include <QStringList>

#include <array>
#include <memory>

// The daemon's log read as it grows: only the lines added since the last look.
class LogTail
{
public:
    void setFile(const QString& name) { file.setFileName(name); }
    // The complete lines added since the last call.
    QStringList newLines();

private:
    QFile file;
    qint64 offset = 0;
    QByteArray partial;
};

// One walk's real system: the built daemon on a private bus with the platform
// simulator, three Xvfb stations and six emulated devices (three keyboards,
// three mice), next to the model that predicts what the daemon does. Steps go
// to both; compare() sets what the daemon did against the model.
class SoakRun
{
public:
    SoakRun();
    ~SoakRun();
    SoakRun(const SoakRun&) = delete;
    SoakRun& operator=(const SoakRun&) = delete;

    // Starts everything; an error text, empty on success.
    QString start();
    // Whether the step can be taken in the current state (a replay whose steps
    // were dropped may hold steps that no longer can): a key on a device the
    // daemon does not hold exactly once, a key that is already in the asked
    // state, a device or server that already is as asked.
    bool applies(const SoakStep& step) const;
    // Takes the step on the real system and in the model, and waits until the
    // daemon has acted on it; an error text when the harness failed.
    QString apply(const SoakStep& step);
    // What differs between the daemon and the model, or a broken invariant;
    // empty when all agrees. `stepsDone` tells whether the memory and
    // descriptor bounds apply yet.
    QString compare(int stepsDone);

    const SoakWorld& getWorld() const { return world; }
    const SoakModel& getModel() const { return model; }
    QString logTail() const { return box.logTail(); }
    // What the walk made the daemon do, for the test's output.
    QString summary() const;

    static const QList<SoakModel::Combination>& combinations();
    // The step at which the memory and descriptor figures are taken as the base.
    static constexpr int baseStep = 100;

private:
    QString call(const SoakStep& step);
    QString wrongTypeCall(const QString& method);
    int displayNumber(const QString& token) const;
    QString deviceArgument(const SoakStep& step) const;
    QString plug(int slot);
    // Asks for the status and waits until its lines are all written; the
    // daemon has then run an update since the request.
    QString settle();
    QString compareStatus();
    QString compareCommands();
    QString compareLogLevels();
    QString compareLeds();
    QString compareWindows();
    QString compareResources(int stepsDone);

    StationBlackbox box;
    std::array<std::unique_ptr<StoppableStation>, SoakWorld::servers> servers;
    int serverNumbers[SoakWorld::servers] = {};
    int noServerDisplay = -1;
    SoakWorld world;
    SoakModel model;
    QString commandsFile;
    QVector<QString> lastNode;
    QVector<int> plugCount;
    LogTail log;
    QStringList status;   // the last status block
    QStringList bugLines; // Bug messages logged so far
    QStringList errorLines;
    QHash<QString, QPair<qint64, int>> blinkingSince; // node: since (ms), LED records then
    QElapsedTimer clock;
    int baseDescriptors = -1;
    qint64 baseResidentKiB = -1;
};
