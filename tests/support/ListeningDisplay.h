#pragma once

#include "common/OwnedFd.h"

#include <optional>
#include <sys/types.h>

// A display number held by an X server that the test plays itself: the lock
// file /tmp/.XN-lock, written as an X server writes it, keeps the other test
// servers off the number, and a socket listens on the display's abstract
// name ("\0/tmp/.X11-unix/XN", where a client looks first). The destructor
// closes the socket and gives the number back.
class ListeningDisplay
{
public:
    ListeningDisplay() = default;
    ~ListeningDisplay();

    ListeningDisplay(const ListeningDisplay&) = delete;
    ListeningDisplay& operator=(const ListeningDisplay&) = delete;

    // Takes a free display number. With `listenerUid`,
    // the socket is made by a thread of that effective user id, whose
    // credentials are what a client reads as its peer's (only root can do
    // that). False when no number could be taken.
    bool listen(std::optional<uid_t> listenerUid = std::nullopt);

    // -1 before listen() succeeded.
    int number() const { return displayNumber; }
    // The listening socket, close-on-exec.
    int socket() const { return listener.get(); }

private:
    bool listenOn(int number, std::optional<uid_t> listenerUid);

    int displayNumber = -1;
    Orvanta::OwnedFd listener;
};
