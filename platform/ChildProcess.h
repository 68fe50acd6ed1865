#pragma once

// A child process started from an executable path with explicit standard streams:
// the counterpart of the system's task object. Safe to share between threads:
// one thread may wait while another asks the child to terminate.

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <atomic>
#include <mutex>
#include <optional>
#include <sys/types.h>
#include <vector>

namespace platform {

class ChildProcess {
public:
    enum class Stream {
        Inherit,  // the parent's own stream
        Null,     // the null device
        Pipe,     // a fresh pipe; the parent keeps the other end
    };

    ChildProcess(QString launchPath, QStringList arguments);
    // An unreaped child is reaped in the background: the caller never waits for it.
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    const QString &launchPath() const { return m_launchPath; }
    const QStringList &arguments() const { return m_arguments; }

    void setStandardInput(Stream stream) { m_streams[0] = stream; }
    void setStandardOutput(Stream stream) { m_streams[1] = stream; }
    void setStandardError(Stream stream) { m_streams[2] = stream; }
    // Replaces the inherited environment.
    void setEnvironment(const QMap<QString, QString> &environment) { m_environment = environment; }
    // Descriptors the child inherits under the same numbers (all others are closed).
    void setInheritedDescriptors(std::vector<int> descriptors) { m_inherited = std::move(descriptors); }
    void setWorkingDirectory(const QString &path) { m_workingDirectory = path; }

    // Starts the child. False with a reason when it could not be started.
    bool launch(QString *error = nullptr);

    // Parent ends of the pipes (-1 when that stream is no pipe, or once closed).
    int standardInputWriteEnd() const { return m_parentEnds[0]; }
    int standardOutputReadEnd() const { return m_parentEnds[1]; }
    int standardErrorReadEnd() const { return m_parentEnds[2]; }
    void closeStandardInput() { closeEnd(0); }
    void closeStandardOutput() { closeEnd(1); }
    void closeStandardError() { closeEnd(2); }

    pid_t processIdentifier() const { return m_pid; }
    bool isLaunched() const { return m_pid > 0; }
    bool isRunning();
    // Blocks until the child has ended.
    void waitUntilExit();
    // The exit code, or the signal number when a signal ended it (as the system's
    // task object reports it); none while it runs or before launch.
    std::optional<int> terminationStatus();
    bool endedBySignal();

    // Sends SIGTERM (or SIGKILL) while the child has not been reaped.
    void terminate();
    void kill();
    // True once terminate() or kill() was called.
    bool terminationRequested() const { return m_terminationRequested.load(); }

private:
    void closeEnd(int index);
    bool reapIfEnded(bool block);
    void sendSignal(int signalNumber);

    QString m_launchPath;
    QStringList m_arguments;
    Stream m_streams[3] = {Stream::Inherit, Stream::Inherit, Stream::Inherit};
    std::optional<QMap<QString, QString>> m_environment;
    std::vector<int> m_inherited;
    QString m_workingDirectory;
    std::atomic<int> m_parentEnds[3] = {-1, -1, -1};
    // Set by launch while a time limit's thread may already be asking isRunning.
    std::atomic<pid_t> m_pid{-1};

    std::mutex m_mutex;  // guards the reaped state, so no signal reaches a reused pid
    bool m_reaped = false;
    std::atomic<bool> m_terminationRequested{false};
    int m_rawStatus = 0;
};

// True when PATH names a file this process may execute.
bool isExecutableFile(const QString &path);

// True for a folder the desktop presents as one file (an application bundle and
// its kin); such a path is never run.
bool isPackage(const QString &path);

}  // namespace platform
