#pragma once

// The program's log: "<name>.1.log" in the user's Library/Logs/Lanternfish, rotated
// over five generations and turned over after 500000 bytes. Callers hand lines to
// one background writer and only wait when a short line comes from a worker thread.

#include "system/HXFormat.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <QStringConverter>
#include <QStringList>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

class HXLog {
public:
    static constexpr std::uint64_t kSizeLimit = 500000;
    static constexpr int kGenerations = 5;

    static HXLog &sharedController();

    // Rotates the generations and opens a fresh current log with its header. The
    // first name given becomes the log's name for the life of the process.
    static void createNewLog(const QString &name = QString());

    // Formats one line and queues it; a short line from a worker thread is on disk
    // when the call returns.
    template <typename... Args> static void appendLog(QStringView format, const Args &...args)
    {
        if (format.isNull())
            return;
        appendFormatted(HXFormat(format, args...));
    }

    // As appendLog, and also prints the text to standard output.
    template <typename... Args> static void appendLogAndPrint(QStringView format, const Args &...args)
    {
        if (format.isNull())
            return;
        appendAndPrintFormatted(HXFormat(format, args...));
    }

    // Formats one line and queues it without ever waiting.
    template <typename... Args> static void fastAppendLog(QStringView format, const Args &...args)
    {
        if (format.isNull())
            return;
        sharedController().appendTextToLog(HXFormat(format, args...));
    }

    // Blocks until every queued line is written. A no-op on the writer itself.
    static void finishWriting();

    // Existing generations in the user's log folder, generation 1 first.
    static QStringList availableLogs();

    // The application is about to end: write what is queued (when little is),
    // then close the log. Lines logged afterwards are dropped.
    static void willTerminate();

    // Trims TEXT and queues it unless nothing is left.
    void appendTextToLog(const QString &text);

    QString appName() const;
    void setAppName(const QString &name);
    std::uint64_t bytesWritten() const { return m_bytesWritten.load(); }
    std::uint64_t bytesInQueue() const { return m_bytesInQueue.load(); }
    bool loggingDisabled() const { return m_loggingDisabled.load(); }

    // The log folder and current-log path for the process as it runs now.
    static QString logFolder();
    static QString currentLogPath();

    // The console copy printed by appendLogAndPrint.
    static QString consoleCopy(const QString &trimmedText);

private:
    HXLog();
    ~HXLog() = delete;

    static void appendFormatted(const QString &text);
    static void appendAndPrintFormatted(const QString &text);

    // Lines handed to the writer: their trimmed texts in UTF-8, back to back.
    struct Pending {
        struct Line {
            qsizetype end;         // where its bytes end in text
            std::uint64_t length;  // its length in characters, for bytesInQueue
        };
        QByteArray text;
        std::vector<Line> lines;
        void clear()
        {
            text.resize(0);  // both keep their capacity for the next lines
            lines.clear();
        }
    };
    enum class WriterState { Writing, Gathering, Sleeping };

    void observeApplicationEnd();
    void runWriter();
    void writeBatch(const Pending &batch);
    bool appendLogOnThread(QByteArrayView text);
    bool createNewLogLocked(const QString &name);
    static void queueHeader();
    bool openCurrentLogForAppend();
    std::uint64_t appendLine(QByteArrayView text);
    void flushBuffer();
    void closeFile();
    bool isWriterThread() const { return std::this_thread::get_id() == m_writer.get_id(); }
    std::size_t pendingOperations() const;
    void waitUntilWritten(std::unique_lock<std::mutex> &lock);

    // Queue state, guarded by m_queueMutex.
    mutable std::mutex m_queueMutex;
    std::condition_variable m_queueChanged;
    std::condition_variable m_queueDrained;
    Pending m_pending;
    QStringEncoder m_queueEncoder{QStringEncoder::Utf8, QStringConverter::Flag::Stateless};
    WriterState m_writerState = WriterState::Writing;
    bool m_writerWoken = false;
    bool m_writing = false;
    int m_waiters = 0;
    bool m_queueOpen = true;
    std::thread m_writer;

    // File state, guarded by m_fileMutex (the writer rotates while holding it).
    mutable std::recursive_mutex m_fileMutex;
    int m_fd = -1;
    QByteArray m_buffer;
    QString m_appName;
    bool m_appNameSet = false;

    // Apart: the callers change one on every line, the writer the other.
    alignas(64) std::atomic<std::uint64_t> m_bytesWritten{0};
    alignas(64) std::atomic<std::uint64_t> m_bytesInQueue{0};
    std::atomic<bool> m_loggingDisabled{false};
    std::atomic<bool> m_observingApplicationEnd{false};
};
