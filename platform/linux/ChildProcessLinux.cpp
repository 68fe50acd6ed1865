#include "platform/ChildProcess.h"
#include "platform/SignalStack.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace platform {

namespace {

void closeDescriptor(int fd)
{
    if (fd >= 0)
        ::close(fd);
}

// Owns the argument and environment strings while posix_spawn reads them.
struct CStringList {
    std::vector<QByteArray> storage;
    std::vector<char *> pointers;

    void append(const QByteArray &text) { storage.push_back(text); }
    char *const *terminated()
    {
        pointers.clear();
        for (QByteArray &text : storage)
            pointers.push_back(text.data());
        pointers.push_back(nullptr);
        return pointers.data();
    }
};

}  // namespace

ChildProcess::ChildProcess(QString launchPath, QStringList arguments)
    : m_launchPath(std::move(launchPath)), m_arguments(std::move(arguments))
{
}

ChildProcess::~ChildProcess()
{
    for (int i = 0; i < 3; ++i)
        closeEnd(i);
    if (m_pid <= 0 || reapIfEnded(false))
        return;
    // Nobody waits for this child any more; collect it when it ends so it does
    // not linger as a zombie.
    const pid_t pid = m_pid;
    std::thread([pid] {
        const platform::ThreadSignalStack signalStack;
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }).detach();
}

void ChildProcess::closeEnd(int index)
{
    closeDescriptor(m_parentEnds[index].exchange(-1));
}

bool ChildProcess::launch(QString *error)
{
    auto fail = [error](const QString &reason) {
        if (error)
            *error = reason;
        return false;
    };
    if (m_pid > 0)
        return fail(QStringLiteral("task already launched"));

    int childEnds[3] = {-1, -1, -1};
    auto closeChildEnds = [&childEnds] {
        for (int &fd : childEnds) {
            closeDescriptor(fd);
            fd = -1;
        }
    };
    for (int i = 0; i < 3; ++i) {
        if (m_streams[i] != Stream::Pipe)
            continue;
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            const int saved = errno;
            closeChildEnds();
            for (int j = 0; j < 3; ++j)
                closeEnd(j);
            return fail(QString::fromLocal8Bit(std::strerror(saved)));
        }
        // Standard input: the child reads, we write. Output: the other way round.
        childEnds[i] = i == 0 ? fds[0] : fds[1];
        m_parentEnds[i] = i == 0 ? fds[1] : fds[0];
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int i = 0; i < 3; ++i) {
        if (m_streams[i] == Stream::Pipe)
            posix_spawn_file_actions_adddup2(&actions, childEnds[i], i);
        else if (m_streams[i] == Stream::Null)
            posix_spawn_file_actions_addopen(&actions, i, "/dev/null", i == 0 ? O_RDONLY : O_WRONLY, 0);
    }
    // Same number: the descriptor loses its close-on-exec flag in the child.
    for (int fd : m_inherited)
        posix_spawn_file_actions_adddup2(&actions, fd, fd);
    const QByteArray workingDirectory = QFile::encodeName(m_workingDirectory);
    if (!m_workingDirectory.isEmpty())
        posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.constData());

    // The child starts with default signal handling and nothing blocked, whatever
    // this process changed for itself.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    sigdelset(&signals, SIGKILL);
    sigdelset(&signals, SIGSTOP);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    const QByteArray path = QFile::encodeName(m_launchPath);
    CStringList argv;
    argv.append(path);
    for (const QString &argument : m_arguments)
        argv.append(argument.toLocal8Bit());
    CStringList envp;
    if (m_environment) {
        for (auto it = m_environment->cbegin(); it != m_environment->cend(); ++it)
            envp.append((it.key() + QLatin1Char('=') + it.value()).toLocal8Bit());
    }

    pid_t pid = -1;
    const int result = ::posix_spawn(&pid, path.constData(), &actions, &attributes, argv.terminated(),
                                     m_environment ? envp.terminated() : environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    closeChildEnds();
    if (result != 0) {
        for (int j = 0; j < 3; ++j)
            closeEnd(j);
        return fail(QString::fromLocal8Bit(std::strerror(result)));
    }
    m_pid = pid;
    return true;
}

bool ChildProcess::reapIfEnded(bool block)
{
    if (m_pid <= 0)
        return false;
    {
        std::lock_guard lock(m_mutex);
        if (m_reaped)
            return true;
    }
    if (block) {
        // Wait without collecting, so that the pid stays ours until the lock is held.
        siginfo_t info{};
        while (::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
    }
    std::lock_guard lock(m_mutex);
    if (m_reaped)
        return true;
    int status = 0;
    pid_t result;
    while ((result = ::waitpid(m_pid, &status, WNOHANG)) < 0 && errno == EINTR) {
    }
    if (result == m_pid) {
        m_reaped = true;
        m_rawStatus = status;
    } else if (result < 0) {
        // Collected elsewhere: nothing is left to wait for or to signal.
        m_reaped = true;
        m_rawStatus = 0;
    }
    return m_reaped;
}

bool ChildProcess::isRunning()
{
    return m_pid > 0 && !reapIfEnded(false);
}

void ChildProcess::waitUntilExit()
{
    reapIfEnded(true);
}

std::optional<int> ChildProcess::terminationStatus()
{
    if (!reapIfEnded(false))
        return std::nullopt;
    std::lock_guard lock(m_mutex);
    if (WIFSIGNALED(m_rawStatus))
        return WTERMSIG(m_rawStatus);
    return WEXITSTATUS(m_rawStatus);
}

bool ChildProcess::endedBySignal()
{
    if (!reapIfEnded(false))
        return false;
    std::lock_guard lock(m_mutex);
    return WIFSIGNALED(m_rawStatus);
}

void ChildProcess::sendSignal(int signalNumber)
{
    m_terminationRequested = true;
    std::lock_guard lock(m_mutex);
    if (m_pid > 0 && !m_reaped)
        ::kill(m_pid, signalNumber);
}

void ChildProcess::terminate()
{
    sendSignal(SIGTERM);
}

void ChildProcess::kill()
{
    sendSignal(SIGKILL);
}

bool isExecutableFile(const QString &path)
{
    if (path.isEmpty())
        return false;
    return ::access(QFile::encodeName(path).constData(), X_OK) == 0;
}

bool isPackage(const QString &path)
{
    static const QStringList kPackageExtensions = {
        QStringLiteral("app"),    QStringLiteral("bundle"), QStringLiteral("framework"),
        QStringLiteral("plugin"), QStringLiteral("kext"),   QStringLiteral("pkg"),
        QStringLiteral("mpkg"),
    };
    const QFileInfo info(path);
    return info.isDir() && kPackageExtensions.contains(info.suffix(), Qt::CaseInsensitive);
}

}  // namespace platform
