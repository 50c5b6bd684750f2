#pragma once

#include "common/OwnedFd.h"

#include <QByteArray>
#include <QVector>

// The daemon's side of the command launcher (see LauncherProcess): the daemon's end of the
// socket pair, the requests it sends and the answers it takes. One per process; all calls come
// from the main thread.
class CommandLauncher
{
public:
    // Forks the launcher and logs once what commands run with: "Commands run as root" (Info)
    // for root; "Commands run with the daemon's groups: CAP_SETGID is missing" (Warning) for
    // another account that cannot drop its groups; nothing when commands run without groups
    // and capabilities. Belongs before the process opens anything a command must not inherit
    // and before it gives up its own capabilities. False when no launcher could be started.
    static bool start();

    // Hands the command over and takes the launcher's answer, which comes as soon as the
    // command has started. A pidfd of the started command (readable once it has ended; the
    // launcher collects it), or an invalid one when it could not be started or handed over. A
    // process that never called start() starts its launcher here, at its first command.
    static Orvanta::OwnedFd launch(const QByteArray& command,
                                   const QVector<QByteArray>& environment);
};
