#include "system/HXMainThread.h"

#include <QCoreApplication>
#include <QEvent>
#include <QObject>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace {
// Static initialisation runs on the main thread before main() starts.
const std::thread::id kMainThreadId = std::this_thread::get_id();

struct Handover {
    std::mutex mutex;
    std::condition_variable ran;
    bool done = false;
};

struct PendingWork {
    std::function<void()> work;
    std::shared_ptr<Handover> handover;  // none when nobody waits
};

// The work itself travels through this queue under a standard mutex, and a bare
// Qt event only says "look at the queue". So every hand-over between threads is
// visible to ThreadSanitizer, which cannot see Qt's own futex-based locking.
std::mutex g_pendingMutex;
std::deque<PendingWork> g_pending;

const QEvent::Type kRunPendingWork = static_cast<QEvent::Type>(QEvent::registerEventType());

void runPendingWork();

// Receives nothing but our own event (custom types arrive in customEvent), and
// never looks into it: its memory came from another thread.
class PendingWorkRunner : public QObject {
protected:
    void customEvent(QEvent *) override { runPendingWork(); }
};

// Lives on the main thread for the rest of the process. Guarded by g_pendingMutex.
PendingWorkRunner *g_runner = nullptr;

void runPendingWork()
{
    for (;;) {
        PendingWork next;
        {
            std::lock_guard lock(g_pendingMutex);
            if (g_pending.empty())
                return;
            next = std::move(g_pending.front());
            g_pending.pop_front();
        }
        next.work();
        if (next.handover) {
            std::lock_guard lock(next.handover->mutex);
            next.handover->done = true;
            next.handover->ran.notify_all();
        }
    }
}

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
    std::shared_ptr<Handover> handover = wait ? std::make_shared<Handover>() : nullptr;
    PendingWorkRunner *runner = nullptr;
    {
        std::lock_guard lock(g_pendingMutex);
        if (g_runner == nullptr) {
            g_runner = new PendingWorkRunner();
            g_runner->moveToThread(app->thread());
        }
        runner = g_runner;
        g_pending.push_back({work, handover});
    }
    QCoreApplication::postEvent(runner, new QEvent(kRunPendingWork));
    if (handover) {
        std::unique_lock lock(handover->mutex);
        handover->ran.wait(lock, [&] { return handover->done; });
    }
}
