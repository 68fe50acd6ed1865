#pragma once

// HXTaskEx: runs an executable as a child process and waits for it, returns its
// output or its exit status, or hands its output piece by piece to a receiver.
// Privileged execution lives in HXAuthorization. Failures are logged, never thrown.

#include "platform/ChildProcess.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <any>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

// The task object of a run; a caller that passes a slot gets the running child.
using HXTask = std::shared_ptr<platform::ChildProcess>;
// An environment replaces the inherited one.
using HXTaskEnvironment = QMap<QString, QString>;

// Text encodings of the string forms. ASCII is strict: a byte above 0x7F makes
// the decoding fail (a null QString).
enum class HXStringEncoding { ASCII, UTF8, Latin1 };

// One piece of asynchronous output on its way to the receiver; empty data marks
// the end of the output.
struct HXAsyncTaskDataNotification {
    QByteArray data;
};

class HXTaskEx;

// The receiver of asynchronous output: the piece, the reader and, only when one
// was given, the extra object (else nullptr). Called on the reader's thread.
using HXAsyncTaskHandler =
    std::function<void(const QByteArray &piece, HXTaskEx &task, const std::any *object)>;

class HXTaskEx : public std::enable_shared_from_this<HXTaskEx> {
public:
    // Instances are shared: a timer or reader thread keeps its instance alive.
    static std::shared_ptr<HXTaskEx> create();
    ~HXTaskEx();
    HXTaskEx(const HXTaskEx &) = delete;
    HXTaskEx &operator=(const HXTaskEx &) = delete;

    // --- Run and wait. True when the child was started and has ended, whatever
    // its exit status. Output and errors go to the null device.
    static bool runTask(const QString &path, const QStringList &arguments = {});
    static bool runTask(const QString &path, const QStringList &arguments, HXTask *task);
    // Starts the child and returns at once.
    static void runTaskAndReturn(const QString &path, const QStringList &arguments = {});
    // Runs with a time limit; an overrunning child is terminated.
    static void runTask(const QString &path, const QStringList &arguments, std::chrono::seconds timeout);

    // --- Output as text ("" when the run failed; a null QString when the output
    // does not decode). ASCII unless an encoding is given.
    static QString stringFromTask(const QString &path, const QStringList &arguments = {});
    static QString stringFromTask(const QString &path, const QStringList &arguments, HXTask *task);
    static QString stringFromTask(const QString &path, const QStringList &arguments,
                                  HXStringEncoding encoding, HXTask *task);
    static QString stringFromTask(const QString &path, const QStringList &arguments,
                                  std::chrono::seconds timeout);
    static QString stringFromTask(const QString &path, const QStringList &arguments,
                                  HXStringEncoding encoding, std::chrono::seconds timeout);

    // --- Output as data: standard output, or standard error when standard output
    // is empty. None when the tool cannot be run. Without logOutput the child
    // writes to our own standard output and only standard error is collected.
    static std::optional<QByteArray> dataFromTask(const QString &path, const QStringList &arguments = {},
                                                  HXTask *task = nullptr);
    static std::optional<QByteArray> dataFromTask(const QString &path, const QStringList &arguments,
                                                  HXTask *task,
                                                  const std::optional<HXTaskEnvironment> &environment);
    static std::optional<QByteArray> dataFromTask(const QString &path, const QStringList &arguments,
                                                  HXTask *task,
                                                  const std::optional<HXTaskEnvironment> &environment,
                                                  bool logOutput);
    static std::optional<QByteArray> dataFromTask(const QString &path, const QStringList &arguments,
                                                  std::chrono::seconds timeout);

    // --- Exit status; -1 when the tool cannot be run. A child ended by a signal
    // reports the signal number.
    static int terminationCodeFromTask(const QString &path, const QStringList &arguments = {});
    static int terminationCodeFromTask(const QString &path, const QStringList &arguments, HXTask *task);
    static int terminationCodeFromTask(const QString &path, const QStringList &arguments,
                                       std::chrono::seconds timeout);

    // --- The timed forms on an instance: the run's child is theTask while it runs.
    void timedRunTask(const QString &path, const QStringList &arguments, std::chrono::seconds timeout);
    std::optional<QByteArray> timedDataFromTask(const QString &path, const QStringList &arguments,
                                                std::chrono::seconds timeout);
    int timedTerminationCodeFromTask(const QString &path, const QStringList &arguments,
                                     std::chrono::seconds timeout);
    // The timer: waits TIMEOUT (unless the run is over first), then calls timeout().
    void setupTimeout(std::chrono::seconds timeout);
    // Terminates theTask when it still runs.
    void timeout();

    // --- Asynchronous output. Returns at once; a reader thread hands HANDLER
    // every piece of standard output, then one empty piece, and the run ends.
    void asyncDataFromTask(const QString &path, const QStringList &arguments, HXAsyncTaskHandler handler,
                           std::optional<std::any> object = std::nullopt);
    void asyncDataFromTask(const QString &path, const QStringList &arguments, HXAsyncTaskHandler handler,
                           std::optional<std::any> object,
                           const std::optional<HXTaskEnvironment> &environment);
    void launchAsyncTask();
    void asyncTaskReturnData(const HXAsyncTaskDataNotification &notification);
    void terminateTask();
    void terminateAsyncTask();

    HXTask theTask() const;
    void setTheTask(HXTask task);

    // Decodes DATA the way the string forms do.
    static QString stringFromData(const QByteArray &data, HXStringEncoding encoding);

private:
    HXTaskEx() = default;

    void startTimer(std::chrono::seconds timeout);
    void runTimer(std::chrono::seconds timeout, std::uint64_t generation);
    void finishTimedRun();
    void cancelTimer();

    mutable std::mutex m_taskMutex;
    HXTask m_theTask;

    // The receiver; plain fields, used by the reader thread of the current run.
    HXAsyncTaskHandler m_handler;
    std::optional<std::any> m_object;

    // Timer state: a finished run wakes its timer.
    std::mutex m_timerMutex;
    std::condition_variable m_timerWake;
    std::uint64_t m_timerGeneration = 0;
};
