#include "diagnostics/HXLog.h"

#include "diagnostics/HXDateDescription.h"
#include "platform/Folder.h"
#include "platform/Identity.h"
#include "platform/Platform.h"
#include "platform/SignalStack.h"
#include "system/HXBundle.h"
#include "system/HXLocalPaths.h"
#include "system/HXMainThread.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"
#include "system/HXUserDefaults.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qsizetype kBufferLimit = 64 * 1024;
// In a burst the writer waits for this much text, or this long, before it writes:
// one write and one wake-up for hundreds of lines.
constexpr qsizetype kBatchBytes = 48 * 1024;
constexpr auto kGatherTime = std::chrono::milliseconds(1);
constexpr std::size_t kTerminateWaitLimit = 20;

void printToConsole(const QByteArray &bytes)
{
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

void printToConsole(const QString &text)
{
    printToConsole(text.toUtf8());
}

QByteArray cString(const QString &text)
{
    return text.isNull() ? QByteArray("(null)") : text.toUtf8();
}

bool loggingDisabledByPreference()
{
    return HXUserDefaults::isSuiteSwitchSet(QStringLiteral("disable-logging"));
}

// Creates FOLDER with its missing parents, with the rights of whoever the
// caller acts as: root works in the console user's home as her, so the folders
// are hers and her own runs can still write their logs there.
bool createFolder(const QString &folder)
{
    return !folder.isEmpty() && platform::Folder::openMakingPath(folder, 0777, std::nullopt).has_value();
}

// Replaces PATH with an empty file through a temporary file and a rename.
bool writeEmptyFileAtomically(const QString &path, QString *error)
{
    QByteArray temp = QFile::encodeName(path) + ".XXXXXX";
    const int fd = ::mkstemp(temp.data());
    if (fd < 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    ::fchmod(fd, 0644);
    ::close(fd);
    if (::rename(temp.constData(), QFile::encodeName(path).constData()) != 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        ::unlink(temp.constData());
        return false;
    }
    return true;
}

// Moves generation FROM to TO inside the opened log FOLDER; like the platform's
// move, it refuses to replace an existing file.
bool moveGeneration(const platform::Folder &folder, const QString &from, const QString &to)
{
    return folder.rename(from, folder, to, false) == 0;
}

QString generationPath(const QString &folder, const QString &name, int generation)
{
    return folder + HXFormat(u"/%@.%li.log", name, generation);
}

std::terminate_handler previousTerminate = nullptr;

[[noreturn]] void logUncaughtException()
{
    QString reason = QStringLiteral("Unknown exception");
    if (std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const std::exception &e) {
            reason = QString::fromUtf8(e.what());
        } catch (...) {
        }
    }
    HXLog::appendLogAndPrint(reason);
    HXLog::finishWriting();
    // The crash writer's handler, when it came first, still writes its report.
    if (previousTerminate != nullptr)
        previousTerminate();
    std::abort();
}

}  // namespace

HXLog::HXLog()
{
    m_writer = std::thread([this] {
        const platform::ThreadSignalStack signalStack;
        // Made on first use, perhaps while root acts as a user on this thread.
        platform::useProcessIdentity();
        runWriter();
    });
    previousTerminate = std::set_terminate(logUncaughtException);
}

HXLog &HXLog::sharedController()
{
    static HXLog *instance = new HXLog();
    instance->observeApplicationEnd();
    return *instance;
}

void HXLog::observeApplicationEnd()
{
    // The application object may come after the log's first use; watch for it
    // from the first call that finds one.
    if (m_observingApplicationEnd.load(std::memory_order_acquire))
        return;
    QCoreApplication *app = QCoreApplication::instance();
    if (app == nullptr || m_observingApplicationEnd.exchange(true))
        return;
    QObject::connect(app, &QCoreApplication::aboutToQuit, [] { HXLog::willTerminate(); });
}

QString HXLog::appName() const
{
    std::lock_guard lock(m_fileMutex);
    if (m_appNameSet)
        return m_appName;
    return HXPath::deletingExtension(HXPath::lastComponent(HXBundle::mainBundle().executablePath()));
}

void HXLog::setAppName(const QString &name)
{
    std::lock_guard lock(m_fileMutex);
    m_appName = name;
    m_appNameSet = true;
}

QString HXLog::logFolder()
{
    return HXLocalPaths::libraryDirectory(true) + QStringLiteral("/Logs/Lanternfish");
}

namespace {

// The current log of NAME for the process as it runs now, when its user's log
// folder is FOLDER.
QString currentLogPathIn(const QString &folder, const QString &name)
{
    // A root process writes the current log in the machine's Library while the
    // generations it rotates stay in the user's folder; kept as it has always been.
    if (platform::isRoot())
        return HXLocalPaths::libraryDirectory(false) + HXFormat(u"/Logs/Lanternfish/%@.1.log", name);
    return folder + HXFormat(u"/%@.1.log", name);
}

}  // namespace

QString HXLog::currentLogPath()
{
    const QString name = sharedController().appName();
    return currentLogPathIn(platform::isRoot() ? QString() : logFolder(), name);
}

void HXLog::createNewLog(const QString &name)
{
    HXLog &log = sharedController();
    bool opened = false;
    {
        std::lock_guard lock(log.m_fileMutex);
        opened = log.createNewLogLocked(name);
    }
    // Queued outside the file lock: a worker thread's short line may wait for the
    // writer, which needs that lock.
    if (opened)
        queueHeader();
}

bool HXLog::createNewLogLocked(const QString &name)
{
    closeFile();

    if (loggingDisabledByPreference()) {
        printToConsole(QByteArray("Logging is disabled\n"));
        m_loggingDisabled = true;
        return false;
    }

    if (!name.isEmpty() && !m_appNameSet) {
        m_appName = name;
        m_appNameSet = true;
    }
    m_bytesWritten = 0;
    if (m_appName.isEmpty()) {
        m_appName = QStringLiteral("Unknown");
        m_appNameSet = true;
    }

    const QString folder = logFolder();
    const QString current = currentLogPathIn(folder, m_appName);
    const bool rotate = QFileInfo::exists(current);
    // The generations lie in the user's folder: as root, worked on with her rights.
    const HXActingForUser acting(folder);
    if (!QFileInfo(folder).isDir() && !createFolder(folder)) {
        printToConsole(HXFormat(u"Unable to create folder %s.\n", cString(folder).constData()));
        return false;
    }

    if (rotate) {
        // The generations lie in the user's folder: changed by descriptor only.
        const std::optional<platform::Folder> generations = platform::Folder::open(folder);
        auto name = [&](int generation) {
            return HXPath::lastComponent(generationPath(folder, m_appName, generation));
        };
        if (generations)
            generations->removeEntry(name(kGenerations));
        for (int generation = kGenerations - 1; generation >= 1; --generation) {
            // A folder that cannot be opened moves nothing: that is a failed move
            // too, or the fresh log would replace generation 1.
            const bool exists = generations
                                    ? generations->contains(name(generation))
                                    : QFileInfo::exists(generationPath(folder, m_appName, generation));
            if (!exists)
                continue;
            if (!generations || !moveGeneration(*generations, name(generation), name(generation + 1))) {
                printToConsole(HXFormat(u"Unable to move file %s to %s.\n",
                                        generationPath(folder, m_appName, generation),
                                        generationPath(folder, m_appName, generation + 1)));
                return false;
            }
        }
    }

    QString error;
    const platform::WithRootRights root;
    if (!writeEmptyFileAtomically(current, &error)) {
        printToConsole(HXFormat(u"Unable to create log file %s - %s\n", current, error));
        return false;
    }
    const int fd = ::open(QFile::encodeName(current).constData(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    m_fd = fd;
    return true;
}

void HXLog::queueHeader()
{
    // The machine's facts are read once: the header comes again at every turnover.
    static const QString osVersion = platform::osVersionString();
    static const int processors = platform::processorCount();
    static const double memory =
        static_cast<double>(platform::physicalMemoryBytes()) / 1024.0 / 1024.0 / 1024.0;
    const HXBundle &bundle = HXBundle::mainBundle();
    fastAppendLog(u"Log started: %@\n", HXCurrentDateDescription());
    const QVariant version = bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion"));
    if (version.isValid())
        fastAppendLog(u"Version: %@\n", version);
    fastAppendLog(u"Path: %@\n", bundle.executablePath());
    appendLog(u"System: OS X %@, %li CPU(s), %0.2f GB RAM\n", osVersion, processors, memory);
    if constexpr (sizeof(void *) == 8)
        fastAppendLog(u"Running in 64-bit mode\n");
}

void HXLog::appendTextToLog(const QString &text)
{
    const QStringView trimmed = QStringView(text).trimmed();
    if (trimmed.isEmpty())
        return;
    bool wakeWriter = false;
    {
        std::lock_guard lock(m_queueMutex);
        if (!m_queueOpen)
            return;
        const auto length = static_cast<std::uint64_t>(trimmed.size());
        m_bytesInQueue += length;
        QByteArray &bytes = m_pending.text;
        const qsizetype start = bytes.size();
        bytes.resize(start + m_queueEncoder.requiredSpace(trimmed.size()));
        const char *end = m_queueEncoder.appendToBuffer(bytes.data() + start, trimmed);
        bytes.resize(end - bytes.constData());
        m_pending.lines.push_back({bytes.size(), length});
        // A sleeping writer wakes for the first line; a gathering one once it has
        // a batch's worth.
        if (!m_writerWoken && (m_writerState == WriterState::Sleeping ||
                               (m_writerState == WriterState::Gathering && bytes.size() >= kBatchBytes)))
            wakeWriter = m_writerWoken = true;
    }
    if (wakeWriter)
        m_queueChanged.notify_one();
}

void HXLog::appendFormatted(const QString &text)
{
    HXLog &log = sharedController();
    log.appendTextToLog(text);
    if (!HXIsMainThread() && !text.isEmpty() && text.size() <= 99 && log.bytesInQueue() <= 99)
        finishWriting();
}

QString HXLog::consoleCopy(const QString &trimmedText)
{
    QString copy = trimmedText;
    copy.remove(QStringLiteral("%@"));
    copy.replace(QLatin1Char('%'), QStringLiteral("%%"));
    copy.remove(QChar(u'\0'));
    return copy;
}

void HXLog::appendAndPrintFormatted(const QString &text)
{
    const QString trimmed = text.trimmed();
    // The trimmed text is a format again, so its "%" conversions apply once more.
    appendLog(trimmed);
    printToConsole(consoleCopy(trimmed) + QLatin1Char('\n'));
}

std::size_t HXLog::pendingOperations() const
{
    return m_pending.lines.size() + (m_writing ? 1 : 0);
}

void HXLog::waitUntilWritten(std::unique_lock<std::mutex> &lock)
{
    if (pendingOperations() == 0)
        return;
    // Someone waits: the writer stops gathering and writes what there is.
    ++m_waiters;
    if (m_writerState != WriterState::Writing && !m_writerWoken) {
        m_writerWoken = true;
        m_queueChanged.notify_one();
    }
    m_queueDrained.wait(lock, [&] { return pendingOperations() == 0; });
    --m_waiters;
}

void HXLog::finishWriting()
{
    HXLog &log = sharedController();
    if (log.isWriterThread())
        return;  // the writer would wait for itself
    std::unique_lock lock(log.m_queueMutex);
    log.waitUntilWritten(lock);
}

QStringList HXLog::availableLogs()
{
    const QString folder = logFolder();
    const QString name = sharedController().appName();
    QStringList logs;
    for (int generation = 1; generation <= kGenerations; ++generation) {
        const QString path = HXFormat(u"%@/%@.%li.log", folder, name, generation);
        if (QFileInfo::exists(path))
            logs.append(path);
    }
    return logs;
}

void HXLog::willTerminate()
{
    HXLog &log = sharedController();
    {
        std::unique_lock lock(log.m_queueMutex);
        if (!log.m_queueOpen)
            return;
        if (log.pendingOperations() < kTerminateWaitLimit && !log.isWriterThread())
            log.waitUntilWritten(lock);
        else
            log.m_pending.clear();
        log.m_queueOpen = false;
    }
    log.m_queueChanged.notify_all();
    if (!log.isWriterThread() && log.m_writer.joinable())
        log.m_writer.join();
    std::lock_guard fileLock(log.m_fileMutex);
    log.m_appName.clear();
    log.m_appNameSet = false;
    log.closeFile();
}

void HXLog::runWriter()
{
    Pending batch;
    std::unique_lock lock(m_queueMutex);
    // Lines come in bursts. Within one the writer gathers lines for a while before
    // it writes, so that the callers do not wake it line by line; a line after a
    // pause is written at once.
    bool inBurst = false;
    const auto gather = [&] {
        m_writerState = WriterState::Gathering;
        m_queueChanged.wait_for(lock, kGatherTime, [&] {
            return m_waiters > 0 || !m_queueOpen || m_pending.text.size() >= kBatchBytes;
        });
    };
    for (;;) {
        if (m_pending.lines.empty()) {
            m_writing = false;
            m_queueDrained.notify_all();
            if (!m_queueOpen)
                return;
            if (inBurst) {
                gather();
            } else {
                m_writerState = WriterState::Sleeping;
                m_queueChanged.wait(lock, [&] { return !m_pending.lines.empty() || !m_queueOpen; });
            }
            inBurst = false;
        } else if (inBurst && m_waiters == 0 && m_queueOpen && m_pending.text.size() < kBatchBytes) {
            gather();
        }
        m_writerState = WriterState::Writing;
        m_writerWoken = false;
        if (m_pending.lines.empty())
            continue;
        // Lines queued while this batch is written (the header after a turnover)
        // wait behind it, in the order they were queued.
        std::swap(batch, m_pending);
        m_writing = true;
        lock.unlock();
        writeBatch(batch);
        batch.clear();
        lock.lock();
        inBurst = true;
    }
}

void HXLog::writeBatch(const Pending &batch)
{
    std::lock_guard fileLock(m_fileMutex);
    std::uint64_t written = 0;
    qsizetype start = 0;
    for (const Pending::Line &line : batch.lines) {
        const QByteArrayView text(batch.text.constData() + start, line.end - start);
        start = line.end;
        written += appendLogOnThread(text) ? line.length : 0;
    }
    flushBuffer();
    m_bytesInQueue -= written;
}

// Returns whether the line counts as written for bytesInQueue.
bool HXLog::appendLogOnThread(QByteArrayView text)
{
    if (m_loggingDisabled)
        return false;  // deliberately leaves bytesInQueue as it is
    try {
        if (m_fd < 0 && !openCurrentLogForAppend()) {
            if (!m_loggingDisabled) {
                printToConsole(HXFormat(u"Unable to log the following information: %s\n",
                                        QString::fromUtf8(text.data(), text.size())));
                printToConsole(QByteArray("Unable to open log for output\n"));
            }
        } else {
            m_bytesWritten += appendLine(text);
            if (m_bytesWritten >= kSizeLimit) {
                flushBuffer();
                if (createNewLogLocked(appName()))
                    queueHeader();
                appendLog(u"Log truncated at 500KB");
            }
        }
        return true;
    } catch (const std::exception &e) {
        if (!m_loggingDisabled)
            printToConsole(HXFormat(u"Exception writing to log: %s\n", e.what()));
        return false;  // deliberately not counted as written
    }
}

bool HXLog::openCurrentLogForAppend()
{
    const int fd = ::open(QFile::encodeName(currentLogPath()).constData(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    ::lseek(fd, 0, SEEK_END);
    m_fd = fd;
    return true;
}

std::uint64_t HXLog::appendLine(QByteArrayView text)
{
    // "<date> - <text>\n" into the write buffer.
    const QByteArray &date = HXCurrentDateDescriptionUtf8();
    if (m_buffer.capacity() < kBufferLimit)
        m_buffer.reserve(2 * kBufferLimit);
    const qsizetype length = date.size() + 3 + text.size() + 1;
    const qsizetype start = m_buffer.size();
    m_buffer.resize(start + length);
    char *out = m_buffer.data() + start;
    std::memcpy(out, date.constData(), static_cast<std::size_t>(date.size()));
    out += date.size();
    std::memcpy(out, " - ", 3);
    out += 3;
    std::memcpy(out, text.data(), static_cast<std::size_t>(text.size()));
    out[text.size()] = '\n';
    if (m_buffer.size() >= kBufferLimit)
        flushBuffer();
    return static_cast<std::uint64_t>(length);
}

void HXLog::flushBuffer()
{
    if (m_buffer.isEmpty())
        return;
    const char *data = m_buffer.constData();
    qsizetype left = m_buffer.size();
    while (left > 0 && m_fd >= 0) {
        const ssize_t written = ::write(m_fd, data, static_cast<std::size_t>(left));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            if (!m_loggingDisabled)
                printToConsole(HXFormat(u"Exception writing to log: %s\n", std::strerror(errno)));
            break;
        }
        data += written;
        left -= written;
    }
    m_buffer.resize(0);  // keeps the capacity for the next lines
}

void HXLog::closeFile()
{
    flushBuffer();
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}
