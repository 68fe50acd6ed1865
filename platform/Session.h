#pragma once

// The desktop session the windowed application lives in.

#include <functional>

namespace platform {

// True when there is a display to open windows on.
bool desktopSessionAvailable();

// Calls HANDLER on the main thread's event loop when the session or the system
// asks the process to end (log-out, shutdown, an interrupt), so that it can quit
// the way the Quit command does. Needs the application object; install once.
void onTerminationRequest(std::function<void()> handler);

}  // namespace platform
