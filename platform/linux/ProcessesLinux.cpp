#include "platform/Processes.h"

#include <QByteArray>
#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

namespace {

// Through syscall(): older C libraries have no wrappers for these.
int pidfdOpen(pid_t pid)
{
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

int pidfdSendSignal(int pidfd, int signalNumber)
{
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signalNumber, nullptr, 0));
}

// The target of /proc/PID/exe without the " (deleted)" the kernel appends once
// the file is gone (an update replaced the application under a running helper).
std::optional<QString> executableOf(pid_t pid)
{
    const QByteArray link = "/proc/" + QByteArray::number(pid) + "/exe";
    QByteArray target(256, Qt::Uninitialized);
    for (;;) {
        const ssize_t length = ::readlink(link.constData(), target.data(), target.size());
        if (length < 0)
            return std::nullopt;
        if (length < target.size()) {
            target.truncate(length);
            break;
        }
        target.resize(target.size() * 2);
    }
    static const QByteArray deleted = " (deleted)";
    if (target.endsWith(deleted))
        target.chop(deleted.size());
    return QFile::decodeName(target);
}

bool endedBehind(int pidfd)
{
    pollfd entry{pidfd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}

}  // namespace

std::vector<RunningProcess> runningProcesses()
{
    std::vector<RunningProcess> processes;
    DIR *proc = ::opendir("/proc");
    if (proc == nullptr)
        return processes;
    while (const dirent *entry = ::readdir(proc)) {
        char *end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0')
            continue;
        // Kernel threads have no executable; another user's process refuses
        // to show it unless this one is root.
        if (std::optional<QString> path = executableOf(static_cast<pid_t>(pid)))
            processes.push_back({static_cast<pid_t>(pid), std::move(*path)});
    }
    ::closedir(proc);
    return processes;
}

std::optional<PinnedProcess> PinnedProcess::pin(pid_t pid, const QString &executablePath)
{
    const int pidfd = pidfdOpen(pid);
    if (pidfd < 0)
        return std::nullopt;
    PinnedProcess pinned(pid, executablePath, pidfd);
    // The pid might have been reused between the listing and pidfd_open: the
    // handle is trusted only if the pid still runs the same executable while
    // the handle's process is alive, for then the two are one process.
    if (executableOf(pid) != executablePath || pinned.hasEnded())
        return std::nullopt;
    return pinned;
}

int PinnedProcess::sendSignal(int signalNumber) const
{
    return pidfdSendSignal(m_handle.get(), signalNumber) == 0 ? 0 : errno;
}

int PinnedProcess::terminate() const
{
    return sendSignal(SIGTERM);
}

int PinnedProcess::kill() const
{
    return sendSignal(SIGKILL);
}

bool PinnedProcess::hasEnded() const
{
    return endedBehind(m_handle.get());
}

void waitUntilEnded(const std::vector<const PinnedProcess *> &processes, std::chrono::seconds limit)
{
    // A pidfd turns readable when its process exits, zombie or not.
    std::vector<pollfd> waiting;
    for (const PinnedProcess *process : processes)
        waiting.push_back({process->m_handle.get(), POLLIN, 0});
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!waiting.empty()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return;
        const int ready = ::poll(waiting.data(), waiting.size(), static_cast<int>(left.count()));
        if (ready < 0 && errno != EINTR)
            return;
        std::erase_if(waiting, [](const pollfd &entry) { return entry.revents != 0; });
    }
}

}  // namespace platform
