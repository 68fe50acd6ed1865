#include "fs/HXFileWaits.h"

#include "diagnostics/HXLog.h"
#include "system/HXPath.h"

#include <QDateTime>
#include <QFile>

#include <sys/stat.h>

#include <optional>
#include <thread>

namespace HXFileManager {

namespace {

using namespace std::chrono_literals;

constexpr auto kPollStep = 500us;
// A file modified this recently is taken to be still being written.
constexpr qint64 kWritingWindowMs = 4000;

std::optional<QDateTime> modificationDate(const QString &path)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return std::nullopt;
    return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(info.st_mtim.tv_sec) * 1000 +
                                          info.st_mtim.tv_nsec / 1000000);
}

bool isRecent(const QDateTime &date, const QDateTime &now)
{
    return now.msecsTo(date) >= -kWritingWindowMs;
}

// The modification date as the wait sees it. A date that cannot be read, or one
// ahead of the clock, counts as "now" when first seen that way and keeps that
// moment: a writer that replaces its file is still waited for, but a file gone
// for good or stamped in the future cannot hold the caller for ever.
class WriteWatch {
public:
    explicit WriteWatch(QString path) : m_path(std::move(path)) {}

    QDateTime effectiveDate()
    {
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const std::optional<QDateTime> date = modificationDate(m_path);
        if (date && *date <= now) {
            m_odd.reset();
            return *date;
        }
        if (!m_odd || m_odd->first != date)
            m_odd = std::make_pair(date, now);
        return m_odd->second;
    }

private:
    QString m_path;
    std::optional<std::pair<std::optional<QDateTime>, QDateTime>> m_odd;
};

}  // namespace

void waitForFileCreation(const QString &path, std::chrono::seconds timeout)
{
    const QDateTime start = QDateTime::currentDateTimeUtc();
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) == 0 && info.st_size > 0)
        return;
    // One look only: callers that need the file call again.
    if (start.secsTo(QDateTime::currentDateTimeUtc()) <= timeout.count()) {
        HXLog::appendLog(u"File %@ is not yet created. Waiting...", path);
        std::this_thread::sleep_for(kPollStep);
    }
}

void waitForFileWrites(const QString &path, const QString &lockFile)
{
    const std::optional<QDateTime> date = modificationDate(path);
    const bool beingWritten = date && isRecent(*date, QDateTime::currentDateTimeUtc());
    if (!beingWritten) {
        if (lockFile.isEmpty())
            return;
        const QString lockPath = HXPath::appendingComponent(HXPath::deletingLastComponent(path), lockFile);
        struct stat info {};
        if (::stat(QFile::encodeName(lockPath).constData(), &info) != 0)
            return;
    }
    HXLog::appendLog(u"File %@ is currently being written to. Waiting...", path);
    WriteWatch watch(path);
    while (isRecent(watch.effectiveDate(), QDateTime::currentDateTimeUtc()))
        std::this_thread::sleep_for(kPollStep);
    HXLog::appendLog(u"File %@ finished writing.", path);
}

}  // namespace HXFileManager
