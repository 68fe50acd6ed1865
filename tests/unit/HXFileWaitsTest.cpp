#include "fs/HXFileAttributes.h"
#include "fs/HXFileWaits.h"
#include "tests/support/TestFiles.h"

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
        ASSERT_TRUE(disk::write(path(name), contents));
    }
    void age(const QString &name) const
    {
        ASSERT_TRUE(setModificationDate(QDateTime::currentDateTimeUtc().addSecs(-3600), path(name)));
    }

    QTemporaryDir m_dir;
};

}  // namespace

// A creation wait looks once; old files and old lock files are not waited for
// (a lock file only starts the wait; the wait itself watches the document).
TEST_F(FileWaits, ReadyFilesAreNotWaitedFor)
{
    write(u"ready"_s);
    waitForFileCreation(path(u"ready"_s), 5s);
    waitForFileCreation(path(u"missing"_s), 0s);
    write(u"empty"_s, QByteArray());
    waitForFileCreation(path(u"empty"_s), 100s);

    write(u"doc"_s);
    age(u"doc"_s);
    waitForFileWrites(path(u"doc"_s));
    waitForFileWrites(path(u"doc"_s), u"doc.lock"_s);
    write(u"doc.lock"_s);
    waitForFileWrites(path(u"doc"_s), u"doc.lock"_s);
    waitForFileWrites(path(u"missing"_s));
    SUCCEED();
}

TEST_F(FileWaits, WaitsUntilTheWriterHasStopped)
{
    write(u"growing"_s);
    // Appends every 100 ms for a second and a half, then notes when it stopped.
    std::atomic<std::chrono::steady_clock::time_point> stoppedAt{};
    std::thread writer([&] {
        for (int i = 0; i < 15; ++i) {
            QFile file(path(u"growing"_s));
            if (file.open(QIODevice::Append))
                file.write("x");
            std::this_thread::sleep_for(100ms);
        }
        stoppedAt = std::chrono::steady_clock::now();
    });
    waitForFileWrites(path(u"growing"_s));
    const auto returnedAt = std::chrono::steady_clock::now();
    writer.join();
    EXPECT_GT(returnedAt, stoppedAt.load());
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
