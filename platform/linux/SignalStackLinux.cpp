#include "platform/SignalStack.h"

#include <csignal>
#include <sys/mman.h>
#include <unistd.h>

namespace platform {

namespace {

// As large as the main thread's: room for the crash writer's backtrace.
constexpr std::size_t kStackSize = 64 * 1024;

}  // namespace

ThreadSignalStack::ThreadSignalStack()
{
    stack_t current{};
    if (::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0)
        return;
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t length = kStackSize + page;
    void *memory =
        ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED)
        return;
    // A guard page below: a handler that outgrows the stack faults instead of
    // writing over whatever lies beneath it.
    ::mprotect(memory, page, PROT_NONE);
    stack_t stack{};
    stack.ss_sp = static_cast<char *>(memory) + page;
    stack.ss_size = kStackSize;
    if (::sigaltstack(&stack, nullptr) != 0) {
        ::munmap(memory, length);
        return;
    }
    m_memory = memory;
    m_length = length;
}

ThreadSignalStack::~ThreadSignalStack()
{
    if (m_memory == nullptr)
        return;
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    ::sigaltstack(&off, nullptr);
    ::munmap(m_memory, m_length);
}

}  // namespace platform
