#pragma once

// An operation queue that runs one operation at a time, in the order they were
// added, on a worker thread of its own. Operations still waiting can be
// cancelled; the one running always finishes. Destroying the queue cancels what
// waits and joins the worker.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

class HXSerialQueue {
public:
    HXSerialQueue();
    ~HXSerialQueue();

    HXSerialQueue(const HXSerialQueue &) = delete;
    HXSerialQueue &operator=(const HXSerialQueue &) = delete;

    void addOperation(std::function<void()> operation);
    void cancelAllOperations();
    // Returns once nothing waits and nothing runs.
    void waitUntilAllOperationsAreFinished();

private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_operations;
    bool m_running = false;
    bool m_stopping = false;
    std::thread m_worker;
};
