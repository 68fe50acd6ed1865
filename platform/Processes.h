#pragma once

// Other processes of the system: which run, from which executable, and ending
// one of them. A process is pinned before it is signalled, so a signal reaches
// that process or nothing, never one that took over its pid later.

#include "platform/Accounts.h"
#include "platform/Descriptor.h"

#include <QString>
#include <QStringList>

#include <chrono>
#include <optional>
#include <sys/types.h>
#include <vector>

namespace platform {

struct RunningProcess {
    pid_t pid = 0;
    // The user the process acts as.
    uid_t owner = 0;
    // Absolute, as the system resolved it when the process started; the
    // executable may have been removed since.
    QString executablePath;
};

// Every process whose executable this process may look at (as root all of
// them, otherwise about its own user's); ended ones are left out.
std::vector<RunningProcess> runningProcesses();

class PinnedProcess {
public:
    // PID while it still runs EXECUTABLEPATH; none once it has ended or runs
    // something else.
    static std::optional<PinnedProcess> pin(pid_t pid, const QString &executablePath);

    pid_t pid() const { return m_pid; }
    const QString &executablePath() const { return m_executablePath; }
    // The user its real, effective and saved user ids all named once pinned;
    // none when they differed.
    std::optional<uid_t> soleUser() const { return m_soleUser; }
    // True when the file it runs is the file its path names, reached from "/"
    // without following a link, and that file and every folder on the way
    // belong to root and are writable by nobody else. Then only root can have
    // put it there or can make the path name another file, so this stays true.
    bool runsRootOnlyProgram() const { return m_rootOnlyProgram; }

    // 0 or an errno (ESRCH once it has ended, EPERM when this process may not
    // signal it). As root, a process with a sole user other than root is
    // signalled with that user's rights alone: one that has since become
    // someone else's (a set-user-id program it started) is out of reach.
    int terminate() const;
    int kill() const;
    // True once it has exited, also while its parent has not collected it yet.
    bool hasEnded() const;

private:
    friend void waitUntilEnded(const std::vector<const PinnedProcess *> &processes,
                               std::chrono::seconds limit);

    PinnedProcess(pid_t pid, QString executablePath, int handle)
        : m_pid(pid), m_executablePath(std::move(executablePath)), m_handle(handle)
    {
    }
    int sendSignal(int signalNumber) const;

    pid_t m_pid;
    QString m_executablePath;
    Descriptor m_handle;
    std::optional<uid_t> m_soleUser;
    bool m_rootOnlyProgram = false;
};

// Waits until every one of PROCESSES has ended, at most LIMIT.
void waitUntilEnded(const std::vector<const PinnedProcess *> &processes, std::chrono::seconds limit);

// Starts EXECUTABLE with ARGUMENTS as ACCOUNT, in a session of its own and not
// as a child of this process, in HOME, with HOME, USER and LOGNAME of that account
// and the rest of this environment. As root the identity is dropped before the
// program runs, so nothing started here runs as root for a user. 0 once it runs,
// else an errno (EPERM for another user's identity without root).
int startDetached(const QString &executable, const QStringList &arguments, const Account &account,
                  const QString &home);

}  // namespace platform
