#include "system/HXMainThread.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <thread>

namespace {
// Static initialisation runs on the main thread before main() starts.
const std::thread::id kMainThreadId = std::this_thread::get_id();
}  // namespace

bool HXIsMainThread()
{
    return std::this_thread::get_id() == kMainThreadId;
}

void HXPerformOnMainThread(const std::function<void()> &work, bool wait)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (app == nullptr || (wait && HXIsMainThread())) {
        work();
        return;
    }
    QMetaObject::invokeMethod(app, work, wait ? Qt::BlockingQueuedConnection : Qt::QueuedConnection);
}
