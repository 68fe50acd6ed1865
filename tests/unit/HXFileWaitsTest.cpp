#include "fs/HXFileAttributes.h"
#include "fs/HXFileWaits.h"

#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace HXFileManager;
using namespace Qt::Literals::StringLiterals;
using namespace std::chrono_literals;

namespace {

class FileWaits : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }
    QString path(const QString &name) const { return m_dir.path() + QLatin1Char('/') + name; }
    void write(const QString &name, const QByteArray &contents = "data") const
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }
    void age(const QString &name) const
    {
        ASSERT_TRUE(setModificationDate(QDateTime::currentDateTimeUtc().addSecs(-3600), path(name)));
    }

    QTemporaryDir m_dir;
};

// Appends to a file every 100 ms until told to stop, then records when it stopped.
class Writer {
public:
    explicit Writer(QString path) : m_thread([this, path] { run(path); }) {}
    ~Writer()
    {
        stop();
        m_thread.join();
    }
    void stop() { m_stop = true; }
    std::chrono::steady_clock::time_point stoppedAt() const { return m_stoppedAt.load(); }

private:
    void run(const QString &path)
    {
        while (!m_stop) {
            QFile file(path);
            if (file.open(QIODevice::Append))
                file.write("x");
            std::this_thread::sleep_for(100ms);
        }
        m_stoppedAt = std::chrono::steady_clock::now();
    }

    std::atomic<bool> m_stop{false};
    std::atomic<std::chrono::steady_clock::time_point> m_stoppedAt{};
    std::thread m_thread;
};

}  // namespace

TEST_F(FileWaits, CreationWaitLooksOnceAndReturns)
{
    write(u"ready"_s);
    waitForFileCreation(path(u"ready"_s), 5s);
    waitForFileCreation(path(u"missing"_s), 0s);
    write(u"empty"_s, QByteArray());
    waitForFileCreation(path(u"empty"_s), 100s);
    SUCCEED();
}

TEST_F(FileWaits, OldFilesAndOldLockFilesDoNotWait)
{
    write(u"doc"_s);
    age(u"doc"_s);
    waitForFileWrites(path(u"doc"_s));
    waitForFileWrites(path(u"doc"_s), u"doc.lock"_s);
    // A lock file only starts the wait; the wait itself watches the document.
    write(u"doc.lock"_s);
    waitForFileWrites(path(u"doc"_s), u"doc.lock"_s);
    waitForFileWrites(path(u"missing"_s));
    SUCCEED();
}

TEST_F(FileWaits, WaitsUntilTheWriterHasStopped)
{
    write(u"growing"_s);
    Writer writer(path(u"growing"_s));
    std::thread stopper([&writer] {
        std::this_thread::sleep_for(1500ms);
        writer.stop();
    });
    waitForFileWrites(path(u"growing"_s));
    const auto returnedAt = std::chrono::steady_clock::now();
    stopper.join();
    ASSERT_NE(writer.stoppedAt(), std::chrono::steady_clock::time_point{});
    EXPECT_GT(returnedAt, writer.stoppedAt());
}

TEST_F(FileWaits, AFileThatVanishesOrLiesInTheFutureIsNotWaitedForForever)
{
    write(u"gone"_s);
    std::thread remover([this] {
        std::this_thread::sleep_for(500ms);
        QFile::remove(path(u"gone"_s));
    });
    waitForFileWrites(path(u"gone"_s));
    remover.join();
    EXPECT_FALSE(QFile::exists(path(u"gone"_s)));

    write(u"future"_s);
    ASSERT_TRUE(setModificationDate(QDateTime::currentDateTimeUtc().addYears(50), path(u"future"_s)));
    waitForFileWrites(path(u"future"_s));
    SUCCEED();
}
