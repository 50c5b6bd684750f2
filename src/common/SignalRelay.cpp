#include "common/SignalRelay.h"

#include "common/Logger.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace Orvanta {

namespace {
constexpr char logSource[] = "SignalRelay";
} // namespace

int SignalRelay::writeFd = -1;

SignalRelay::SignalRelay(std::initializer_list<int> signalNumbers, Handler handlerFunction)
    : handler(handlerFunction)
{
    if (writeFd >= 0) {
        SELVANE_LOG(LEVEL_BUG, "A signal relay is installed already");
        return;
    }
    // Close-on-exec: the commands the daemon runs must not inherit the pipe.
    // Non-blocking: a signal handler must never wait for the reader.
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        SELVANE_LOG(LEVEL_ERROR, "Could not create the signal pipe: %s", strerror(errno));
        return;
    }
    readFd = fds[0];
    writeFd = fds[1];
    notifier = new QSocketNotifier(readFd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &SignalRelay::readSignals);

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signalNumber : signalNumbers) {
        sigaction(signalNumber, &action, nullptr);
        relayedSignals.append(signalNumber);
    }
}

SignalRelay::~SignalRelay()
{
    if (readFd < 0) {
        return;
    }
    for (int signalNumber : relayedSignals) {
        signal(signalNumber, SIG_DFL);
    }
    delete notifier;
    close(readFd);
    close(writeFd);
    writeFd = -1;
}

void SignalRelay::onSignal(int signalNumber)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    // When the pipe is full the same signals are already waiting to be handled.
    [[maybe_unused]] const ssize_t written = write(writeFd, &byte, 1);
    errno = savedErrno;
}

void SignalRelay::readSignals()
{
    unsigned char bytes[64];
    ssize_t count;
    while ((count = read(readFd, bytes, sizeof(bytes))) > 0) {
        for (ssize_t i = 0; i < count; ++i) {
            handler(bytes[i]);
        }
    }
}

} // namespace Orvanta
