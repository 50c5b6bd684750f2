#pragma once

#include <QObject>

#include <functional>
#include <initializer_list>

class QSocketNotifier;

namespace Orvanta {

// Carries POSIX signals into the event loop. The signal handler itself only
// writes the signal's number to a pipe, which is safe at any point of the
// program; the handler given here then runs on the event loop's thread, where
// it may log, allocate and quit the application. A signal that arrives before
// the event loop runs is handled as soon as it does.
//
// One relay per process: the signal handler reaches it through a static
// descriptor.
class SignalRelay : public QObject
{
    Q_OBJECT

public:
    using Handler = std::function<void(int)>;

    // Installs the relay for each of the signals. Needs the application object.
    SignalRelay(std::initializer_list<int> signalNumbers, Handler handler);
    // Restores the default action of the signals and closes the pipe.
    ~SignalRelay() override;

    // False when the pipe could not be created; the signals then keep their
    // previous disposition.
    bool isValid() const { return readFd >= 0; }

private:
    static void onSignal(int signalNumber);
    void readSignals();

    static int writeFd;
    int readFd = -1;
    QList<int> relayedSignals;
    Handler handler;
    QSocketNotifier* notifier = nullptr;
};

} // namespace Orvanta
