#include "platform/Processes.h"

#include <QByteArray>
#include <QFile>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

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

// The real, effective and saved users of PID from its status ("Uid: real
// effective saved fs"); the owner of /proc/PID would say root for a process
// that made itself undumpable.
std::optional<std::array<uid_t, 3>> usersOf(const QByteArray &pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(QLatin1String(pid)));
    if (!status.open(QIODevice::ReadOnly))
        return std::nullopt;
    for (QByteArray line = status.readLine(); !line.isEmpty(); line = status.readLine()) {
        if (!line.startsWith("Uid:"))
            continue;
        const QList<QByteArray> ids = line.mid(4).simplified().split(' ');
        std::array<uid_t, 3> users{};
        for (std::size_t i = 0; i < users.size(); ++i) {
            bool ok = false;
            users[i] = ids.value(static_cast<qsizetype>(i)).toUInt(&ok);
            if (!ok)
                return std::nullopt;
        }
        return users;
    }
    return std::nullopt;
}

// True when PATH, walked from "/" one component at a time without following a
// link, reaches the file PROGRAM describes, and that file and each folder on
// the way (each checked on its own descriptor) belong to root and are writable
// by neither group nor others. A sticky world-writable folder such as /tmp
// fails too: anyone may add a name there.
bool isRootOnlyFile(const QByteArray &path, const struct stat &program)
{
    if (!path.startsWith('/'))
        return false;
    const QList<QByteArray> names = path.mid(1).split('/');
    Descriptor current(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (qsizetype i = 0;; ++i) {
        struct stat info {};
        if (current.get() < 0 || ::fstat(current.get(), &info) != 0 || info.st_uid != 0 ||
            (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
            return false;
        if (i == names.size())
            return S_ISREG(info.st_mode) && info.st_dev == program.st_dev && info.st_ino == program.st_ino;
        const QByteArray &name = names[i];
        if (!S_ISDIR(info.st_mode) || name.isEmpty() || name == "." || name == "..")
            return false;
        // A link is opened as itself and fails above: not a folder, not a regular file.
        current = Descriptor(::openat(current.get(), name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    }
}

// Sends SIGNALNUMBER through PIDFD from a child that has become USER and so
// lost root's capabilities: the kernel delivers it only where USER could. This
// process itself never acts as USER, who could signal it meanwhile.
int signalAsUser(int pidfd, int signalNumber, uid_t user)
{
    const pid_t child = ::fork();
    if (child < 0)
        return errno;
    if (child == 0) {
        // Between fork and exit only async-signal-safe calls: the bare system call.
        if (::syscall(SYS_setresuid, user, user, user) != 0)
            ::_exit(EPERM);
        ::_exit(pidfdSendSignal(pidfd, signalNumber) == 0 ? 0 : errno);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return ECHILD;
    return WIFEXITED(status) ? WEXITSTATUS(status) : EPERM;
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
        std::optional<QString> path = executableOf(static_cast<pid_t>(pid));
        const auto users = path ? usersOf(entry->d_name) : std::nullopt;
        if (users)
            processes.push_back({static_cast<pid_t>(pid), (*users)[1], std::move(*path)});
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
    // The pid might have been reused between the listing and pidfd_open: what is
    // read here is trusted only if the pid still runs the same executable while
    // the handle's process is alive, for then the two are one process.
    const QByteArray number = QByteArray::number(pid);
    const Descriptor program(::open(("/proc/" + number + "/exe").constData(), O_PATH | O_CLOEXEC));
    struct stat programInfo {};
    const bool programRead = program.get() >= 0 && ::fstat(program.get(), &programInfo) == 0;
    const std::optional<std::array<uid_t, 3>> users = usersOf(number);
    if (!programRead || !users || executableOf(pid) != executablePath || pinned.hasEnded())
        return std::nullopt;
    if ((*users)[0] == (*users)[1] && (*users)[1] == (*users)[2])
        pinned.m_soleUser = (*users)[0];
    pinned.m_rootOnlyProgram = isRootOnlyFile(QFile::encodeName(executablePath), programInfo);
    return pinned;
}

int PinnedProcess::sendSignal(int signalNumber) const
{
    if (::geteuid() == 0 && m_soleUser && *m_soleUser != 0)
        return signalAsUser(m_handle.get(), signalNumber, *m_soleUser);
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

namespace {

// The environment of a program started for ACCOUNT: ours, with that account's
// names and home, and without a runtime folder that belongs to someone else.
std::vector<QByteArray> environmentFor(const Account &account, const QString &home)
{
    const QByteArray runtime = "/run/user/" + QByteArray::number(account.uid);
    std::vector<QByteArray> entries{"HOME=" + QFile::encodeName(home), "USER=" + account.name.toLocal8Bit(),
                                    "LOGNAME=" + account.name.toLocal8Bit()};
    struct stat info {};
    const bool ownRuntime = ::stat(runtime.constData(), &info) == 0 && info.st_uid == account.uid;
    if (ownRuntime)
        entries.push_back("XDG_RUNTIME_DIR=" + runtime);
    const bool keepRuntime = !ownRuntime && account.uid == ::getuid();
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const QByteArray assignment(*entry);
        const QByteArray name = assignment.left(assignment.indexOf('='));
        if (name == "HOME" || name == "USER" || name == "LOGNAME" || name.startsWith("SUDO_") ||
            name == "PKEXEC_UID" || (name == "XDG_RUNTIME_DIR" && !keepRuntime))
            continue;
        entries.push_back(assignment);
    }
    return entries;
}

// In the started program, between fork and exec: async-signal-safe calls only.
[[noreturn]] void becomeProgram(const char *executable, char *const *arguments, char *const *environment,
                                const char *home, const Account &account, const gid_t *groups,
                                std::size_t groupCount, bool dropIdentity, int report)
{
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int number = 1; number < NSIG; ++number)
        ::signal(number, SIG_DFL);
    const int null = ::open("/dev/null", O_RDWR);
    // Nothing of ours stays open in it: a caller reading our output would
    // otherwise wait for the program to end too.
    if (null < 0 || ::dup2(null, 0) < 0 || ::dup2(null, 1) < 0 || ::dup2(null, 2) < 0)
        goto failed;
    ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    if (dropIdentity && (::setgroups(groupCount, groups) != 0 || ::setgid(account.gid) != 0 ||
                         ::setuid(account.uid) != 0 || ::setuid(0) == 0))
        goto failed;
    if (::chdir(home) != 0 && ::chdir("/") != 0)
        goto failed;
    ::execve(executable, arguments, environment);
failed:
    const int error = errno;
    [[maybe_unused]] const ssize_t written = ::write(report, &error, sizeof error);
    ::_exit(127);
}

}  // namespace

int startDetached(const QString &executable, const QStringList &arguments, const Account &account,
                  const QString &home)
{
    const bool dropIdentity = ::geteuid() == 0 && account.uid != 0;
    if (!dropIdentity && account.uid != ::geteuid())
        return EPERM;
    // Everything the child needs is made before fork: it may not allocate.
    const QByteArray path = QFile::encodeName(executable);
    const QByteArray homePath = QFile::encodeName(home);
    std::vector<QByteArray> environment = environmentFor(account, home);
    std::vector<char *> environmentPointers;
    for (QByteArray &entry : environment)
        environmentPointers.push_back(entry.data());
    environmentPointers.push_back(nullptr);
    std::vector<QByteArray> argumentBytes{path};
    for (const QString &argument : arguments)
        argumentBytes.push_back(argument.toLocal8Bit());
    std::vector<char *> argumentPointers;
    for (QByteArray &argument : argumentBytes)
        argumentPointers.push_back(argument.data());
    argumentPointers.push_back(nullptr);

    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0)
        return errno;
    const pid_t intermediate = ::fork();
    if (intermediate < 0) {
        const int error = errno;
        ::close(report[0]);
        ::close(report[1]);
        return error;
    }
    if (intermediate == 0) {
        // A second fork leaves the program to init, so nobody has to collect it.
        ::setsid();
        const pid_t program = ::fork();
        if (program == 0)
            becomeProgram(path.constData(), argumentPointers.data(), environmentPointers.data(),
                          homePath.constData(), account, account.groups.data(), account.groups.size(),
                          dropIdentity, report[1]);
        if (program < 0) {
            const int error = errno;
            [[maybe_unused]] const ssize_t written = ::write(report[1], &error, sizeof error);
        }
        ::_exit(0);
    }
    ::close(report[1]);
    int status = 0;
    while (::waitpid(intermediate, &status, 0) < 0 && errno == EINTR) {
    }
    // End of file once the program has replaced itself: no error to read.
    int error = 0;
    ssize_t got = 0;
    while ((got = ::read(report[0], &error, sizeof error)) < 0 && errno == EINTR) {
    }
    ::close(report[0]);
    return got == static_cast<ssize_t>(sizeof error) ? error : 0;
}

}  // namespace platform
