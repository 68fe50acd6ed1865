#pragma once

// A thread's own stack for signal handlers. A thread that overflows its stack
// takes SIGSEGV with no room left to handle it: without a stack of its own for
// handlers it dies without a crash report. Every thread Mendwell starts makes
// one of these first thing.

#include <memory>

namespace platform {

// While it lives, the calling thread handles signals on a stack of its own. A
// thread that already has one (the main thread's is the crash writer's, the
// sanitizers give each thread theirs) keeps it.
class ThreadSignalStack {
public:
    ThreadSignalStack();
    ~ThreadSignalStack();
    ThreadSignalStack(const ThreadSignalStack &) = delete;
    ThreadSignalStack &operator=(const ThreadSignalStack &) = delete;

private:
    std::unique_ptr<char[]> m_memory;
};

}  // namespace platform
