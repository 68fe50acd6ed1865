#include "system/HXTaskEx.h"

#include "diagnostics/HXException.h"
#include "diagnostics/HXLog.h"
#include "platform/SignalStack.h"

#include <QFileInfo>
#include <QStringDecoder>

#include <cerrno>
#include <optional>
#include <poll.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

using TaskStore = std::function<void(const HXTask &)>;

// A child asked to terminate gets this long before it is killed.
constexpr auto kTerminationGrace = 5s;

TaskStore slotStore(HXTask *slot)
{
    return [slot](const HXTask &task) {
        if (slot)
            *slot = task;
    };
}

bool isRunnable(const QString &path)
{
    return platform::isExecutableFile(path) && !platform::isPackage(path);
}

void reportNotExecutable(const QString &path)
{
    HXLog::appendLogAndPrint(u"Error: %@ is not executable", path);
}

// Runs the tool to its end with its output discarded: its exit status, or none
// when it could not be run.
std::optional<int> runToEnd(const QString &path, const QStringList &arguments, const TaskStore &store)
{
    if (path.isEmpty() || !isRunnable(path)) {
        reportNotExecutable(path);
        return std::nullopt;
    }
    try {
        auto task = std::make_shared<platform::ChildProcess>(path, arguments);
        task->setStandardOutput(platform::ChildProcess::Stream::Null);
        task->setStandardError(platform::ChildProcess::Stream::Null);
        store(task);
        QString error;
        if (!task->launch(&error))
            throw HXException(QStringLiteral("NSInvalidArgumentException"), error);
        if (task->isRunning())
            task->waitUntilExit();
        return task->terminationStatus().value_or(-1);
    } catch (const std::exception &e) {
        HXLog::appendLog(u"Exception running task %@: %@", path, HXException::reasonOf(e));
        return std::nullopt;
    }
}

bool runAndWait(const QString &path, const QStringList &arguments, const TaskStore &store)
{
    return runToEnd(path, arguments, store).has_value();
}

int terminationCode(const QString &path, const QStringList &arguments, const TaskStore &store)
{
    return runToEnd(path, arguments, store).value_or(-1);
}

// Reads standard output and standard error together until both end, so a child
// that fills one pipe while we wait on the other cannot stall. A child that was
// terminated (timed out) ends the reading once it is gone, even when something
// it started still holds the pipes open.
void readBoth(platform::ChildProcess &task, QByteArray &output, QByteArray &errors)
{
    struct Source {
        int fd;
        QByteArray *buffer;
    };
    std::vector<Source> open;
    if (task.standardOutputReadEnd() >= 0)
        open.push_back({task.standardOutputReadEnd(), &output});
    if (task.standardErrorReadEnd() >= 0)
        open.push_back({task.standardErrorReadEnd(), &errors});
    char chunk[65536];
    bool draining = false;
    while (!open.empty()) {
        std::vector<pollfd> fds;
        for (const Source &source : open)
            fds.push_back({source.fd, POLLIN, 0});
        const int ready = ::poll(fds.data(), fds.size(), draining ? 0 : 200);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0) {
            if (draining || ready < 0)
                break;
            draining = task.terminationRequested() && !task.isRunning();
            continue;
        }
        for (std::size_t i = fds.size(); i-- > 0;) {
            if (fds[i].revents == 0)
                continue;
            const ssize_t count = ::read(fds[i].fd, chunk, sizeof chunk);
            if (count > 0)
                open[i].buffer->append(chunk, count);
            else if (count == 0 || errno != EINTR)
                open.erase(open.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

std::optional<QByteArray> readOutput(const QString &path, const QStringList &arguments,
                                     const TaskStore &store,
                                     const std::optional<HXTaskEnvironment> &environment, bool logOutput)
{
    if (path.isEmpty() || !QFileInfo::exists(path) || !isRunnable(path)) {
        reportNotExecutable(path);
        return std::nullopt;
    }
    try {
        auto task = std::make_shared<platform::ChildProcess>(path, arguments);
        store(task);
        if (environment)
            task->setEnvironment(*environment);
        task->setStandardOutput(logOutput ? platform::ChildProcess::Stream::Pipe
                                          : platform::ChildProcess::Stream::Inherit);
        task->setStandardInput(platform::ChildProcess::Stream::Pipe);
        task->setStandardError(platform::ChildProcess::Stream::Pipe);
        QString error;
        if (!task->launch(&error))
            throw HXException(QStringLiteral("NSInvalidArgumentException"), error);
        // Nothing is ever written to the child: it sees the end of its input at once
        // rather than waiting for input that cannot come.
        task->closeStandardInput();

        QByteArray output;
        QByteArray errors;
        readBoth(*task, output, errors);
        task->closeStandardOutput();
        task->closeStandardError();
        // The task is released without waiting for its exit.
        if (!output.isEmpty())
            return output;
        if (!errors.isEmpty())
            return errors;
        return output;
    } catch (const std::exception &e) {
        HXLog::appendLogAndPrint(u"Exception running task %@: %@", path, HXException::reasonOf(e));
        return std::nullopt;
    }
}

}  // namespace

std::shared_ptr<HXTaskEx> HXTaskEx::create()
{
    return std::shared_ptr<HXTaskEx>(new HXTaskEx());
}

HXTaskEx::~HXTaskEx() = default;

// --- Run and wait

bool HXTaskEx::runTask(const QString &path, const QStringList &arguments)
{
    return runTask(path, arguments, static_cast<HXTask *>(nullptr));
}

bool HXTaskEx::runTask(const QString &path, const QStringList &arguments, HXTask *task)
{
    return runAndWait(path, arguments, slotStore(task));
}

void HXTaskEx::runTaskAndReturn(const QString &path, const QStringList &arguments)
{
    if (path.isEmpty() || !isRunnable(path)) {
        reportNotExecutable(path);
        return;
    }
    try {
        platform::ChildProcess task(path, arguments);
        task.setStandardOutput(platform::ChildProcess::Stream::Null);
        task.setStandardError(platform::ChildProcess::Stream::Null);
        QString error;
        if (!task.launch(&error))
            throw HXException(QStringLiteral("NSInvalidArgumentException"), error);
    } catch (const std::exception &e) {
        HXLog::appendLog(u"Exception running task %@: %@", path, HXException::reasonOf(e));
    }
}

void HXTaskEx::runTask(const QString &path, const QStringList &arguments, std::chrono::seconds timeout)
{
    create()->timedRunTask(path, arguments, timeout);
}

// --- Output as text

QString HXTaskEx::stringFromTask(const QString &path, const QStringList &arguments)
{
    return stringFromTask(path, arguments, HXStringEncoding::ASCII, nullptr);
}

QString HXTaskEx::stringFromTask(const QString &path, const QStringList &arguments, HXTask *task)
{
    return stringFromTask(path, arguments, HXStringEncoding::ASCII, task);
}

QString HXTaskEx::stringFromTask(const QString &path, const QStringList &arguments, HXStringEncoding encoding,
                                 HXTask *task)
{
    const std::optional<QByteArray> data = dataFromTask(path, arguments, task);
    if (!data)
        return QStringLiteral("");
    return stringFromData(*data, encoding);
}

QString HXTaskEx::stringFromTask(const QString &path, const QStringList &arguments,
                                 std::chrono::seconds timeout)
{
    return stringFromTask(path, arguments, HXStringEncoding::ASCII, timeout);
}

QString HXTaskEx::stringFromTask(const QString &path, const QStringList &arguments, HXStringEncoding encoding,
                                 std::chrono::seconds timeout)
{
    const std::optional<QByteArray> data = dataFromTask(path, arguments, timeout);
    if (!data)
        return QStringLiteral("");
    return stringFromData(*data, encoding);
}

QString HXTaskEx::stringFromData(const QByteArray &data, HXStringEncoding encoding)
{
    if (data.isEmpty())
        return QStringLiteral("");
    switch (encoding) {
    case HXStringEncoding::ASCII:
        for (const char byte : data)
            if (static_cast<unsigned char>(byte) > 0x7F)
                return QString();
        return QString::fromLatin1(data);
    case HXStringEncoding::UTF8: {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString text = decoder.decode(data);
        return decoder.hasError() ? QString() : text;
    }
    case HXStringEncoding::Latin1:
        return QString::fromLatin1(data);
    }
    return QString();
}

// --- Output as data

std::optional<QByteArray> HXTaskEx::dataFromTask(const QString &path, const QStringList &arguments,
                                                 HXTask *task)
{
    return dataFromTask(path, arguments, task, std::nullopt);
}

std::optional<QByteArray> HXTaskEx::dataFromTask(const QString &path, const QStringList &arguments,
                                                 HXTask *task,
                                                 const std::optional<HXTaskEnvironment> &environment)
{
    return dataFromTask(path, arguments, task, environment, true);
}

std::optional<QByteArray> HXTaskEx::dataFromTask(const QString &path, const QStringList &arguments,
                                                 HXTask *task,
                                                 const std::optional<HXTaskEnvironment> &environment,
                                                 bool logOutput)
{
    return readOutput(path, arguments, slotStore(task), environment, logOutput);
}

std::optional<QByteArray> HXTaskEx::dataFromTask(const QString &path, const QStringList &arguments,
                                                 std::chrono::seconds timeout)
{
    return create()->timedDataFromTask(path, arguments, timeout);
}

// --- Exit status

int HXTaskEx::terminationCodeFromTask(const QString &path, const QStringList &arguments)
{
    return terminationCodeFromTask(path, arguments, static_cast<HXTask *>(nullptr));
}

int HXTaskEx::terminationCodeFromTask(const QString &path, const QStringList &arguments, HXTask *task)
{
    return terminationCode(path, arguments, slotStore(task));
}

int HXTaskEx::terminationCodeFromTask(const QString &path, const QStringList &arguments,
                                      std::chrono::seconds timeout)
{
    return create()->timedTerminationCodeFromTask(path, arguments, timeout);
}

// --- Timed forms

void HXTaskEx::startTimer(std::chrono::seconds timeout)
{
    std::uint64_t generation;
    {
        std::lock_guard lock(m_timerMutex);
        generation = m_timerGeneration;
    }
    std::shared_ptr<HXTaskEx> self = shared_from_this();
    std::thread([self, timeout, generation] {
        const platform::ThreadSignalStack signalStack;
        self->runTimer(timeout, generation);
    }).detach();
    setTheTask({});
}

void HXTaskEx::finishTimedRun()
{
    setTheTask({});
    cancelTimer();
}

void HXTaskEx::timedRunTask(const QString &path, const QStringList &arguments, std::chrono::seconds timeout)
{
    startTimer(timeout);
    runAndWait(path, arguments, [this](const HXTask &task) { setTheTask(task); });
    finishTimedRun();
}

std::optional<QByteArray> HXTaskEx::timedDataFromTask(const QString &path, const QStringList &arguments,
                                                      std::chrono::seconds timeout)
{
    startTimer(timeout);
    std::optional<QByteArray> data = readOutput(
        path, arguments, [this](const HXTask &task) { setTheTask(task); }, std::nullopt, true);
    finishTimedRun();
    return data;
}

int HXTaskEx::timedTerminationCodeFromTask(const QString &path, const QStringList &arguments,
                                           std::chrono::seconds timeout)
{
    startTimer(timeout);
    const int code = terminationCode(path, arguments, [this](const HXTask &task) { setTheTask(task); });
    finishTimedRun();
    return code;
}

void HXTaskEx::setupTimeout(std::chrono::seconds timeout)
{
    std::uint64_t generation;
    {
        std::lock_guard lock(m_timerMutex);
        generation = m_timerGeneration;
    }
    runTimer(timeout, generation);
}

void HXTaskEx::runTimer(std::chrono::seconds timeout, std::uint64_t generation)
{
    std::unique_lock lock(m_timerMutex);
    // A run that ends early wakes its timer, so no thread outlives its run by
    // the whole time limit, and a late timer never hits a later run.
    if (m_timerWake.wait_for(lock, timeout, [&] { return m_timerGeneration != generation; }))
        return;
    lock.unlock();
    // The timer ends the child itself rather than asking the main thread: the
    // main thread may be the one blocked waiting for this very child.
    this->timeout();
}

void HXTaskEx::cancelTimer()
{
    {
        std::lock_guard lock(m_timerMutex);
        ++m_timerGeneration;
    }
    m_timerWake.notify_all();
}

void HXTaskEx::timeout()
{
    const HXTask task = theTask();
    if (!task || !task->isRunning())
        return;
    HXLog::appendLogAndPrint(u"Task %@ timed out. Terminating...", task->launchPath());
    task->terminate();
    // A child that ignores the request is ended for good after a grace period.
    const auto deadline = std::chrono::steady_clock::now() + kTerminationGrace;
    while (task->isRunning() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(50ms);
    if (task->isRunning())
        task->kill();
}

// --- Asynchronous output

void HXTaskEx::asyncDataFromTask(const QString &path, const QStringList &arguments,
                                 HXAsyncTaskHandler handler, std::optional<std::any> object)
{
    asyncDataFromTask(path, arguments, std::move(handler), std::move(object), std::nullopt);
}

void HXTaskEx::asyncDataFromTask(const QString &path, const QStringList &arguments,
                                 HXAsyncTaskHandler handler, std::optional<std::any> object,
                                 const std::optional<HXTaskEnvironment> &environment)
{
    auto task = std::make_shared<platform::ChildProcess>(path, arguments);
    task->setStandardOutput(platform::ChildProcess::Stream::Pipe);
    task->setStandardError(platform::ChildProcess::Stream::Null);
    if (environment)
        task->setEnvironment(*environment);
    {
        std::lock_guard lock(m_taskMutex);
        m_handler = std::move(handler);
        m_object = std::move(object);
        m_theTask = task;
    }
    std::shared_ptr<HXTaskEx> self = shared_from_this();
    std::thread([self] {
        const platform::ThreadSignalStack signalStack;
        self->launchAsyncTask();
    }).detach();
}

void HXTaskEx::launchAsyncTask()
{
    try {
        const HXTask task = theTask();
        if (!task) {
            HXLog::appendLogAndPrint(u"Unable to launch async task - no task set");
            return;
        }
        const QString path = task->launchPath();
        if (path.isEmpty() || !QFileInfo::exists(path) || !platform::isExecutableFile(path)) {
            HXLog::appendLog(u"Unable to launch async task - task does not exist or is not executable");
            return;
        }
        QString error;
        if (!task->launch(&error))
            throw HXException(QStringLiteral("NSInvalidArgumentException"), error);

        // Read from a copy of the descriptor: terminateAsyncTask closes the task's
        // own one from any thread, and a closed number may be reused at once.
        const int fd = ::dup(task->standardOutputReadEnd());
        char chunk[65536];
        while (fd >= 0 && task->standardOutputReadEnd() >= 0) {
            pollfd ready{fd, POLLIN, 0};
            const int count = ::poll(&ready, 1, 200);
            if (count == 0 || (count < 0 && errno == EINTR))
                continue;
            if (count < 0)
                break;
            const ssize_t length = ::read(fd, chunk, sizeof chunk);
            if (length < 0 && errno == EINTR)
                continue;
            if (length <= 0)
                break;
            asyncTaskReturnData({QByteArray(chunk, length)});
        }
        if (fd >= 0)
            ::close(fd);
        asyncTaskReturnData({QByteArray()});
    } catch (const std::exception &e) {
        HXException::logException(e, "-[HXTaskEx launchAsyncTask]");
    }
}

void HXTaskEx::asyncTaskReturnData(const HXAsyncTaskDataNotification &notification)
{
    HXAsyncTaskHandler handler;
    std::optional<std::any> object;
    {
        std::lock_guard lock(m_taskMutex);
        handler = m_handler;
        object = m_object;
    }
    if (handler)
        handler(notification.data, *this, object ? &*object : nullptr);
    if (notification.data.isEmpty())
        terminateAsyncTask();
}

void HXTaskEx::terminateTask()
{
    terminateAsyncTask();
}

void HXTaskEx::terminateAsyncTask()
{
    HXTask task;
    {
        std::lock_guard lock(m_taskMutex);
        task = std::move(m_theTask);
        m_theTask.reset();
        m_handler = nullptr;
        m_object.reset();
    }
    if (!task)
        return;
    task->closeStandardOutput();
    if (task->isRunning())
        task->terminate();
}

HXTask HXTaskEx::theTask() const
{
    std::lock_guard lock(m_taskMutex);
    return m_theTask;
}

void HXTaskEx::setTheTask(HXTask task)
{
    std::lock_guard lock(m_taskMutex);
    m_theTask = std::move(task);
}
