#include "system/HXMainThread.h"

#include <thread>

namespace {
// Static initialisation runs on the main thread before main() starts.
const std::thread::id kMainThreadId = std::this_thread::get_id();
}  // namespace

bool HXIsMainThread()
{
    return std::this_thread::get_id() == kMainThreadId;
}
