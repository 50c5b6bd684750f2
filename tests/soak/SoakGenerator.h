#pragma once

#include "SoakModel.h"
#include "SoakStep.h"

#include <QSet>
#include <QString>
#include <QVector>

#include <cstdint>

// The devices and servers as the test has made them: which devices have a node
// now and which keys are held down on each.
struct SoakWorld
{
    static constexpr int keyboards = 3;
    static constexpr int mice = 3;
    static constexpr int servers = 3;
    // The one server that is killed and restarted now and then.
    static constexpr int restartedServer = 2;

    struct Slot
    {
        bool mouse = false;
        QString node; // empty while unplugged
        QSet<QString> keysDown;
    };
    QVector<Slot> devices = QVector<Slot>(keyboards + mice);
    QVector<bool> serverRunning = QVector<bool>(servers, true);

    SoakWorld()
    {
        for (int i = keyboards; i < devices.size(); ++i) {
            devices[i].mouse = true;
        }
    }
};

// Draws the walk's steps from a seed. Its own generator, so that a seed gives
// the same walk with any standard library. The draws lean towards what makes
// the daemon work (the keys that displays wait for, devices that exist), with
// nonsense mixed in; keys are only typed on devices the daemon holds once, so
// that no two readers share an emulated node.
class SoakGenerator
{
public:
    explicit SoakGenerator(std::uint64_t seed) : state(seed) {}

    SoakStep next(const SoakWorld& world, const SoakModel& model);

private:
    std::uint64_t nextRandom();
    int below(int bound);
    bool chance(int percent) { return below(100) < percent; }
    template <typename T> const T& pick(const QList<T>& values)
    {
        return values.at(below(static_cast<int>(values.size())));
    }

    SoakStep keyStep(const SoakWorld& world, const SoakModel& model);
    SoakStep callStep(const SoakWorld& world, const SoakModel& model);
    QString anyDevice(const SoakWorld& world);
    QString anyDisplay();
    qint64 anyStation(const QString& display);

    std::uint64_t state;
    SoakStep previousCall;
    bool hasPreviousCall = false;
};
