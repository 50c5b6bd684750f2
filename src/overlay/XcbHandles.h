#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

// Owners for the memory that xcb hands out: replies, events and the
// connection itself. The server-side resources (windows, pixmaps, graphics
// contexts) are not wrapped here: when the connection is lost they must be
// dropped without a request, which only their owner can decide.

struct XcbFree
{
    void operator()(void* pointer) const { std::free(pointer); }
};

// A reply or event returned by xcb, freed with free() when it goes out of scope.
template <typename T> using XcbPointer = std::unique_ptr<T, XcbFree>;

struct XcbDisconnect
{
    // Only closes the socket and frees the client's memory: nothing is sent,
    // so it is also the right way to let go of a connection the server broke.
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
};

using XcbConnection = std::unique_ptr<xcb_connection_t, XcbDisconnect>;
