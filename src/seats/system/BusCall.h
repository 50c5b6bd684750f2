#pragma once

#include <QDBusConnection>
#include <QDBusMessage>

#include <functional>

class QObject;

// Sends a method call and returns at once. `answered` gets the reply, or an
// error message when the call failed or had no answer within timeoutMs, once,
// from the event loop of context's thread; it is never called once context is
// gone. Nothing here waits for the peer, so a hung service never holds the
// caller.
void sendBusCall(const QDBusConnection& connection, const QDBusMessage& call, int timeoutMs,
                 QObject* context, std::function<void(const QDBusMessage&)> answered);

// A failed call's error as "name: message", for log lines and callbacks.
QString busErrorText(const QDBusMessage& reply);
