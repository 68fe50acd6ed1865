#pragma once

#include <functional>

// The process's main thread: the one that ran static initialisation and main().
bool HXIsMainThread();

// Runs WORK on the main thread's event loop. With WAIT the caller blocks until it
// has run (on the main thread itself it runs at once). Without a Qt application
// object there is no loop to hand it to, and WORK runs on the calling thread.
void HXPerformOnMainThread(const std::function<void()> &work, bool wait);
