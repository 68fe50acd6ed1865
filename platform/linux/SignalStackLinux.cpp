#include "platform/SignalStack.h"

#include <csignal>

namespace platform {

namespace {

// As large as the main thread's: room for the crash writer's backtrace.
constexpr std::size_t kStackSize = 64 * 1024;

}  // namespace

ThreadSignalStack::ThreadSignalStack()
{
    // From the heap, not mapped for it: a mapping costs several times the
    // system calls this needs, and a copy starts several threads.
    std::unique_ptr<char[]> memory = std::make_unique_for_overwrite<char[]>(kStackSize);
    stack_t stack{};
    stack.ss_sp = memory.get();
    stack.ss_size = kStackSize;
    stack_t previous{};
    if (::sigaltstack(&stack, &previous) != 0)
        return;
    if ((previous.ss_flags & SS_DISABLE) == 0) {
        ::sigaltstack(&previous, nullptr);  // the thread keeps the one it has
        return;
    }
    m_memory = std::move(memory);
}

ThreadSignalStack::~ThreadSignalStack()
{
    if (m_memory == nullptr)
        return;
    // No handler may run on the memory once it is freed.
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    ::sigaltstack(&off, nullptr);
}

}  // namespace platform
