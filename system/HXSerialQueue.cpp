#include "system/HXSerialQueue.h"

#include "platform/Identity.h"
#include "platform/SignalStack.h"

HXSerialQueue::HXSerialQueue()
    : m_worker([this] {
          const platform::ThreadSignalStack signalStack;
          // Made on first use, perhaps while root acts as a user on the making thread.
          platform::useProcessIdentity();
          run();
      })
{
}

HXSerialQueue::~HXSerialQueue()
{
    {
        std::lock_guard lock(m_mutex);
        m_operations.clear();
        m_stopping = true;
    }
    m_changed.notify_all();
    m_worker.join();
}

void HXSerialQueue::addOperation(std::function<void()> operation)
{
    {
        std::lock_guard lock(m_mutex);
        m_operations.push_back(std::move(operation));
    }
    m_changed.notify_all();
}

void HXSerialQueue::cancelAllOperations()
{
    {
        std::lock_guard lock(m_mutex);
        m_operations.clear();
    }
    m_changed.notify_all();
}

void HXSerialQueue::waitUntilAllOperationsAreFinished()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_operations.empty() && !m_running; });
}

void HXSerialQueue::run()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_stopping || !m_operations.empty(); });
        if (m_stopping)
            return;
        std::function<void()> operation = std::move(m_operations.front());
        m_operations.pop_front();
        m_running = true;
        lock.unlock();
        operation();
        // Whatever the operation held is released before the next one starts.
        operation = nullptr;
        lock.lock();
        m_running = false;
        m_changed.notify_all();
    }
}
