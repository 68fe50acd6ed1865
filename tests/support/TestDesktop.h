#pragma once

// A desktop for one test program: its own session bus, an X display and a
// notification server showing on that display and listening on that bus.

#include "tests/support/TestDisplay.h"
#include "tests/support/TestNotificationServer.h"
#include "tests/support/TestSessionBus.h"

#include <memory>

class TestDesktop {
public:
    TestDesktop()
    {
        if (bus.isRunning() && display.isRunning())
            server = std::make_unique<TestNotificationServer>(display.display(), bus.address());
    }

    bool isRunning() const { return server != nullptr && server->isRunning(); }

    TestSessionBus bus;
    TestDisplay display;
    std::unique_ptr<TestNotificationServer> server;
};
