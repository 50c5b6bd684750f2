#pragma once

// The local socket of an X display :N, as xcb finds it: the abstract one
// first, then the one in /tmp/.X11-unix. Connecting never waits: a socket
// that nobody listens on, or a server whose queue of new connections is full,
// fails at once. A server that accepts and then does not answer is only found
// out by reading its setup.
class DisplaySocket
{
public:
    // A connected, non-blocking, close-on-exec descriptor, or -1.
    static int connect(int displayId);
};
