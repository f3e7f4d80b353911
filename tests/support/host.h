#ifndef HOST_H
#define HOST_H

#include "corvane.h"
#include "loopbackserver.h"
#include "signallog.h"

// A host application in small: a client that is configured for a server, and a log of everything
// that it says.
struct Host
{
    Host()
    {
        client.setServerUrl(server.url());
        client.setProductCode(QStringLiteral("DEMO"));
    }

    LoopbackServer server;
    Corvane client;
    SignalLog log{&client};
};

#endif // HOST_H
