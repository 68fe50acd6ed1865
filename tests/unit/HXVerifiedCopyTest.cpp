// The verified block copy and the older background copy, on real files.

#include "fs/HXFileManager.h"
#include "tests/support/Process.h"
#include "tests/support/StderrCapture.h"
#include "tests/support/TestFiles.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

using namespace HXFileManager;

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

QByteArray patternBytes(qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    std::uint32_t state = 2463534242u;
    for (qsizetype i = 0; i < size; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        data[i] = static_cast<char>(state);
    }
    return data;
}

QString sha1Hex(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha1).toHex());
}

// The messages of system-console lines, without the date and process prefix.
QStringList consoleMessages(const QString &captured)
{
    QStringList messages;
    for (const QString &line : captured.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        messages.append(line.mid(line.indexOf(QLatin1String("] ")) + 2));
    return messages;
}

struct Recorder {
    HXFileCopyDelegate delegate;
    std::vector<std::uint64_t> reports;
    std::vector<std::int64_t> sizesAtReport;  // of the first destination, as each report arrived
    QStringList failedFiles;
    QStringList failedChecksums;
    std::optional<QVariantMap> finished;
    int continueAnswers = 1000;

    explicit Recorder(const QString &watched = {})
    {
        delegate.fileCopyBytesWritten = [this, watched](std::uint64_t total, QVariantMap &) {
            reports.push_back(total);
            sizesAtReport.push_back(watched.isEmpty() ? -1 : QFileInfo(watched).size());
        };
        delegate.fileCopyShouldContinue = [this](QVariantMap &) { return continueAnswers-- > 0; };
        delegate.fileCopyVerificationFailed = [this](QVariantMap &settings, const QString &file) {
            failedFiles.append(file);
            failedChecksums.append(settings.value(QStringLiteral("destChecksum")).toString());
        };
        delegate.fileCopyFinished = [this](QVariantMap &settings) { finished = settings; };
    }
};

std::uint64_t residentPages(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY);
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0 || info.st_size == 0)
        return 0;
    void *map = ::mmap(nullptr, static_cast<size_t>(info.st_size), PROT_READ, MAP_SHARED, fd, 0);
    const size_t pages = (static_cast<size_t>(info.st_size) + 4095) / 4096;
    std::vector<unsigned char> resident(pages);
    std::uint64_t count = 0;
    if (map != MAP_FAILED && ::mincore(map, static_cast<size_t>(info.st_size), resident.data()) == 0)
        for (const unsigned char page : resident)
            count += page & 1;
    if (map != MAP_FAILED)
        ::munmap(map, static_cast<size_t>(info.st_size));
    ::close(fd);
    return count;
}

bool onMemoryFileSystem(const QString &path)
{
    struct statfs info {};
    return ::statfs(QFile::encodeName(path).constData(), &info) == 0 && info.f_type == 0x01021994;
}

QString testProgram(const char *name)
{
    return QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/") + QLatin1String(name);
}

}  // namespace

TEST(HXVerifiedCopyTest, AnEmptySourceGivesEmptyCopiesWithTheDigestOfNothing)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("empty.mov");
    ASSERT_TRUE(disk::write(source, {}));
    const QStringList destinations{dir.filePath("a.mov"), dir.filePath("b.mov")};
    Recorder recorder;
    StderrCapture console;
    ASSERT_TRUE(copyFileWithProgress(source, destinations, kHXVerificationMD5, &recorder.delegate));
    EXPECT_EQ(consoleMessages(console.text()), QStringList{source + " returned 0 bytes"});
    EXPECT_EQ(recorder.reports, std::vector<std::uint64_t>{0});
    ASSERT_TRUE(recorder.finished);
    EXPECT_EQ(recorder.finished->value("sourceChecksum").toString(), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(recorder.finished->value("destChecksums").toStringList(),
              QStringList({"d41d8cd98f00b204e9800998ecf8427e", "d41d8cd98f00b204e9800998ecf8427e"}));
    EXPECT_TRUE(recorder.failedFiles.isEmpty());
    for (const QString &destination : destinations)
        EXPECT_EQ(QFileInfo(destination).size(), 0) << destination.toStdString();
}

// Reports at 40 and 80 MiB and at the end; at each the copy holds exactly what was
// reported. The copy comes back from the storage, not the page cache, and carries
// the source's mode and dates.
TEST(HXVerifiedCopyTest, ReportsEvery40MiBWhileTheCopyHoldsExactlyThatMuch)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("clip.mov");
    const QByteArray data = patternBytes(100 * kMiB);
    ASSERT_TRUE(disk::write(source, data));
    ASSERT_TRUE(QFile::setPermissions(source, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                                  QFileDevice::ReadGroup));
    const QDateTime taken = QDateTime::fromSecsSinceEpoch(1500000000);
    ASSERT_TRUE(setModificationDate(taken, source));
    const QString destination = dir.filePath("card/clip.mov");
    ASSERT_TRUE(QDir().mkpath(dir.filePath("card")));
    Recorder recorder(destination);
    StderrCapture console;
    ASSERT_TRUE(
        copyFileWithProgress(source, QStringList{destination}, kHXVerificationSHA1, &recorder.delegate));
    EXPECT_EQ(consoleMessages(console.text()), QStringList{source + " returned 0 bytes"});

    EXPECT_EQ(recorder.reports, (std::vector<std::uint64_t>{41943040, 83886080, 104857600}));
    EXPECT_EQ(recorder.sizesAtReport, (std::vector<std::int64_t>{41943040, 83886080, 104857600}));
    ASSERT_TRUE(recorder.finished);
    const QString sha1 = sha1Hex(data);
    EXPECT_EQ(recorder.finished->value("sourceChecksum").toString(), sha1);
    EXPECT_EQ(recorder.finished->value("destChecksums").toStringList(), QStringList{sha1});
    if (!onMemoryFileSystem(destination)) {
        EXPECT_LT(residentPages(destination), 16u) << "the copy went through the page cache";
    }
    EXPECT_TRUE(disk::read(destination) == data);
    const QFileInfo copied(destination);
    EXPECT_EQ(copied.permissions() & 0x0FFF, QFileInfo(source).permissions() & 0x0FFF);
    EXPECT_EQ(copied.lastModified(), taken);
}

TEST(HXVerifiedCopyTest, ADelegateThatSaysStopAt40MiBKeepsThatMuchAndNeverHearsFinished)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("clip.mov");
    ASSERT_TRUE(disk::write(source, patternBytes(50 * kMiB)));
    const QString destination = dir.filePath("clip copy.mov");
    Recorder recorder;
    recorder.continueAnswers = 0;
    StderrCapture console;
    EXPECT_FALSE(
        copyFileWithProgress(source, QStringList{destination}, kHXVerificationNone, &recorder.delegate));
    EXPECT_EQ(console.text(), QString());
    EXPECT_EQ(recorder.reports, std::vector<std::uint64_t>{41943040});
    EXPECT_FALSE(recorder.finished);
    EXPECT_EQ(QFileInfo(destination).size(), 41943040);
}

// Two destinations, one in folders that do not exist yet, and a size that ends
// off every block boundary.
TEST(HXVerifiedCopyTest, TwoDestinationsAgreeWithTheSourceDigest)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("A001C003.mov");
    const QByteArray data = patternBytes(3 * kMiB + 123);
    ASSERT_TRUE(disk::write(source, data));
    const QStringList destinations{dir.filePath("backup 1/A001C003.mov"),
                                   dir.filePath("backup 2/Day 1/Card A/A001C003.mov")};
    ASSERT_TRUE(QDir().mkpath(dir.filePath("backup 1")));
    Recorder recorder;
    StderrCapture console;
    ASSERT_TRUE(copyFileWithProgress(source, destinations, kHXVerificationSHA1, &recorder.delegate,
                                     QStringLiteral("card A"), 7));
    EXPECT_EQ(console.text(), QString()) << "no read of 0 bytes when the file ends inside a block";

    ASSERT_TRUE(recorder.finished);
    const QVariantMap &settings = *recorder.finished;
    const QString sha1 = sha1Hex(data);
    EXPECT_EQ(settings.value("sourceChecksum").toString(), sha1);
    EXPECT_EQ(settings.value("destChecksums").toStringList(), QStringList({sha1, sha1}));
    EXPECT_FALSE(settings.contains("destChecksum"));
    EXPECT_EQ(settings.value("source").toString(), source);
    EXPECT_EQ(settings.value("destinations").toStringList(), destinations);
    EXPECT_EQ(settings.value("operationtype").toString(), "copy");
    EXPECT_EQ(settings.value("object").toString(), "card A");
    EXPECT_EQ(settings.value("object2").toInt(), 7);
    EXPECT_EQ(settings.value("delegate").value<HXFileCopyDelegate *>(), &recorder.delegate);
    EXPECT_EQ(recorder.reports, std::vector<std::uint64_t>{3 * kMiB + 123});
    for (const QString &destination : destinations)
        EXPECT_TRUE(disk::read(destination) == data) << destination.toStdString();
}

// Once the source's attributes could not be carried over to one copy, every later
// copy is reported too: the error is kept, as it always was. Root leaves a file
// with a second name as it is, and the delegate gives the second copy one late.
TEST(HXVerifiedCopyTest, AnAttributeFailureIsReportedForEveryLaterCopy)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root leaves a file with a second name as it is";
    QTemporaryDir dir;
    const QString source = dir.filePath("clip.mov");
    ASSERT_TRUE(disk::write(source, "frames"));
    const QStringList destinations{dir.filePath("a.mov"), dir.filePath("b.mov"), dir.filePath("c.mov")};
    Recorder recorder;
    recorder.delegate.fileCopyBytesWritten = [&](std::uint64_t, QVariantMap &) {
        // Fails with EEXIST after the first block, which is all the test needs.
        [[maybe_unused]] const int linked = ::link(QFile::encodeName(destinations[1]).constData(),
                                                   QFile::encodeName(dir.filePath("b2")).constData());
    };
    StderrCapture console;
    ASSERT_TRUE(copyFileWithProgress(source, destinations, kHXVerificationMD5, &recorder.delegate));
    EXPECT_EQ(consoleMessages(console.text()),
              QStringList({"Error setting metadata for file " + destinations[1],
                           "Error setting metadata for file " + destinations[2]}));
    ASSERT_TRUE(recorder.finished);
    const QString md5 = "dcdc1ac079a91d513a5a759b0fb9c1dc";  // of "frames"
    EXPECT_EQ(recorder.finished->value("sourceChecksum").toString(), md5);
    EXPECT_EQ(recorder.finished->value("destChecksums").toStringList(), QStringList({md5, md5, md5}));
}

TEST(HXVerifiedCopyTest, RefusesWhatItCannotCopyWithItsMessages)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("clip.mov");
    ASSERT_TRUE(disk::write(source, "frames"));
    ASSERT_TRUE(disk::write(dir.filePath("plain file"), "x"));
    ASSERT_TRUE(QDir().mkpath(dir.filePath("folder.mov")));
    const QString missing = dir.filePath("gone.mov");
    const QString underFile = dir.filePath("plain file/sub/clip.mov");
    const QString hardLink = dir.filePath("clip link.mov");
    ASSERT_EQ(::link(QFile::encodeName(source).constData(), QFile::encodeName(hardLink).constData()), 0);
    const QString itself =
        "Error: Destination file " + source + " is the source file " + source + " itself. Skipping it...";
    struct Case {
        QString source;
        QStringList destinations;
        int type;
        QString message;
    };
    const Case cases[] = {
        {missing,
         {dir.filePath("a.mov")},
         0,
         "Error: File " + missing + " doesn't exist. Aborting copy process..."},
        {source, {}, 0, "Error: You must have at least one destination. Aborting copy process..."},
        {source, {dir.filePath("a.mov")}, 3, "Error: Unknown verification type 3. Aborting copy process..."},
        {source,
         {dir.filePath("a.mov"), underFile},
         2,
         "Unable to copy file " + source + " - destination directory " + dir.filePath("plain file/sub") +
             " doesn't exist. Aborting copy process..."},
        {dir.filePath("folder.mov"),
         {dir.filePath("a.mov")},
         0,
         "Error: Unable to read source file " + dir.filePath("folder.mov") + ". Aborting copy process..."},
        {source,
         {dir.filePath("b.mov"), dir.filePath("folder.mov")},
         1,
         "Error: Unable to open destination file " + dir.filePath("folder.mov") +
             ". Aborting copy process..."},
        // A kernel attribute reads shorter than the size it gives.
        {"/sys/kernel/uevent_seqnum",
         {dir.filePath("short.mov")},
         0,
         "Error: copied file size does not match original source /sys/kernel/uevent_seqnum"},
        {source, {source}, 0, itself},
        {source,
         {hardLink},
         2,
         "Error: Destination file " + hardLink + " is the source file " + source + " itself. Skipping it..."},
    };
    for (const Case &c : cases) {
        Recorder recorder;
        StderrCapture console;
        EXPECT_FALSE(copyFileWithProgress(c.source, c.destinations, c.type, &recorder.delegate));
        EXPECT_TRUE(consoleMessages(console.text()).contains(c.message)) << c.message.toStdString();
        EXPECT_FALSE(recorder.finished);
        EXPECT_TRUE(recorder.reports.empty());
    }
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("a.mov")));

    // Among other destinations the source itself is left out; the rest are copied.
    Recorder recorder;
    StderrCapture console;
    EXPECT_FALSE(
        copyFileWithProgress(source, {source, dir.filePath("c.mov"), hardLink}, 1, &recorder.delegate));
    EXPECT_EQ(disk::read(source), "frames");
    EXPECT_EQ(QFileInfo(source).size(), 6);
    EXPECT_TRUE(consoleMessages(console.text()).contains(itself)) << console.text().toStdString();
    EXPECT_EQ(disk::read(dir.filePath("c.mov")), "frames");
    ASSERT_TRUE(recorder.finished);
    EXPECT_EQ(recorder.finished->value("destinations").toStringList(), QStringList{dir.filePath("c.mov")});
}

// The storage returns one destination's first byte changed. Only that copy is
// reported, with the digest actually read; the result stays YES.
TEST(HXVerifiedCopyTest, AReadBackFaultIsReportedForThatCopyAlone)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("clip.mov");
    const QByteArray data = patternBytes(5 * kMiB);
    ASSERT_TRUE(disk::write(source, data));
    const QString good = dir.filePath("good.mov");
    const QString bad = dir.filePath("bad.mov");
    QByteArray corrupted = data;
    corrupted[0] = static_cast<char>(~corrupted[0]);
    const QString sha1 = sha1Hex(data);
    const QString badSha1 = sha1Hex(corrupted);

    const ProcessResult run =
        runProcess({testProgram("verifiedcopy"), "2", source, good, bad},
                   QProcess::systemEnvironment() + QStringList{"HXTEST_CORRUPT_READS=" + bad});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QStringList lines = QString::fromUtf8(run.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    EXPECT_EQ(lines, QStringList({"written 5242880", "failed " + bad + " " + badSha1, "finished",
                                  "source " + sha1, "destinations " + sha1 + "," + badSha1, "result YES"}));
    EXPECT_TRUE(disk::read(bad) == data) << "the fault lies in reading back, not in the file";
}

// A destination on a small, full file system: one line per block it could not
// take, a verification failure for it alone, and the other copy whole.
TEST(HXVerifiedCopyTest, AFullVolumeReportsEveryBlockItCouldNotTake)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("clip.mov");
    const QByteArray data = patternBytes(4 * kMiB);
    ASSERT_TRUE(disk::write(source, data));
    const QString small = dir.filePath("small");
    ASSERT_TRUE(QDir().mkpath(small));
    const QString good = dir.filePath("good.mov");
    const QString script = QStringLiteral("mount -t tmpfs -o size=1m tmpfs \"$1\" || exit 90; \"$2\" 2 "
                                          "\"$3\" \"$4\" \"$1/clip.mov\"; status=$?; "
                                          "stat -c %s \"$1/clip.mov\"; exit $status");
    // A mount namespace of our own: as root directly, otherwise inside a user namespace.
    const QStringList unshare = ::geteuid() == 0
                                    ? QStringList{"unshare", "--mount"}
                                    : QStringList{"unshare", "--user", "--map-root-user", "--mount"};
    const ProcessResult run = runProcess(
        unshare + QStringList{"sh", "-c", script, "sh", small, testProgram("verifiedcopy"), source, good});
    if (run.exitCode == 90 || run.err.contains("unshare failed"))
        GTEST_SKIP() << "cannot mount a small file system here: " << run.err.toStdString();
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QStringList lines = QString::fromUtf8(run.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_FALSE(lines.isEmpty());
    const qint64 kept = lines.last().toLongLong();
    EXPECT_GT(kept, 0);
    EXPECT_LT(kept, 4 * static_cast<qint64>(kMiB));

    const QString full = small + "/clip.mov";
    const QStringList messages = consoleMessages(QString::fromUtf8(run.err));
    const qsizetype expected = 128 - kept / 32768;
    EXPECT_EQ(messages.count("Error writing file " + full + ": 1"), expected);
    EXPECT_EQ(messages.size(), expected + 1) << "and the read of 0 bytes";
    const QString sha1 = sha1Hex(data);
    EXPECT_TRUE(lines.contains("source " + sha1));
    EXPECT_EQ(lines.filter(QStringLiteral("failed ")).size(), 1);
    EXPECT_TRUE(lines.filter(QStringLiteral("failed ")).value(0).startsWith("failed " + full + " "));
    EXPECT_TRUE(lines.contains("result YES"));
    EXPECT_TRUE(disk::read(good) == data);
}

namespace {

struct AsyncRecorder {
    std::shared_ptr<HXFileOperationDelegate> delegate = std::make_shared<HXFileOperationDelegate>();
    std::vector<QVariantMap> progress;
    std::optional<QVariantMap> finished;
    bool offMainThread = false;
    bool cancelAtFirstReport = false;

    AsyncRecorder()
    {
        const std::thread::id mainThread = std::this_thread::get_id();
        delegate->fileOperationProgressFileOperation =
            [this, mainThread](const QVariantMap &status, const HXFileOperationRef &operation) {
                offMainThread = offMainThread || std::this_thread::get_id() != mainThread;
                progress.push_back(status);
                if (cancelAtFirstReport)
                    cancelFileOperation(operation);
            };
        delegate->fileOperationFinished = [this, mainThread](const QVariantMap &status) {
            offMainThread = offMainThread || std::this_thread::get_id() != mainThread;
            finished = status;
        };
    }

    void waitForFinish()
    {
        QEventLoop loop;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, [&] {
            if (finished)
                loop.quit();
        });
        poll.start(10);
        QTimer::singleShot(60000, &loop, &QEventLoop::quit);
        loop.exec();
    }
};

}  // namespace

TEST(HXAsyncCopyTest, ReportsRunningThenCompleteOnTheMainThread)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("Project");
    const QByteArray data = patternBytes(8 * kMiB);
    ASSERT_TRUE(disk::write(source + "/Media/clip.mov", data));
    ASSERT_TRUE(disk::write(source + "/edit.prproj", "timeline"));
    const QString destination = dir.filePath("Backup/Project copy");
    AsyncRecorder recorder;
    ASSERT_TRUE(copyFileWithProgressOld(source, destination, recorder.delegate, QStringLiteral("job 1")));
    recorder.waitForFinish();

    ASSERT_TRUE(recorder.finished);
    EXPECT_FALSE(recorder.offMainThread);
    ASSERT_FALSE(recorder.progress.empty());
    const QVariantMap &running = recorder.progress.front();
    EXPECT_EQ(running.value("stage").toInt(), 2);
    EXPECT_EQ(running.value("source").toString(), source);
    EXPECT_EQ(running.value("destination").toString(), destination);
    EXPECT_EQ(running.value("operationtype").toString(), "copy");
    EXPECT_EQ(running.value("object").toString(), "job 1");
    EXPECT_FALSE(running.contains("object2"));
    EXPECT_EQ(running.value(kHXOperationTotalBytesKey).toULongLong(), 8 * kMiB + 8);
    EXPECT_EQ(running.value(kHXOperationTotalObjectsKey).toULongLong(), 4u);
    EXPECT_EQ(recorder.finished->value("stage").toInt(), 3);
    EXPECT_FALSE(recorder.finished->contains(kHXOperationBytesCompleteKey));
    EXPECT_TRUE(disk::read(destination + "/Media/clip.mov") == data);
    EXPECT_EQ(disk::read(destination + "/edit.prproj"), QByteArray("timeline"));

    // An existing destination is not replaced.
    StderrCapture console;
    EXPECT_FALSE(copyFileWithProgressOld(source, destination, recorder.delegate));
    EXPECT_TRUE(consoleMessages(console.text()).contains("Failed to begin asynchronous object copy: 17"));
}

TEST(HXAsyncCopyTest, ACancelledCopyCompletesAndLeavesNothingBehind)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("long.mov");
    // Sparse: long to copy, nothing to store.
    QFile file(source);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.resize(4LL * 1024 * kMiB));
    file.close();
    const QString destination = dir.filePath("copy.mov");
    AsyncRecorder recorder;
    recorder.cancelAtFirstReport = true;
    ASSERT_TRUE(copyFileWithProgressOld(source, destination, recorder.delegate));
    recorder.waitForFinish();
    ASSERT_TRUE(recorder.finished);
    EXPECT_EQ(recorder.finished->value("stage").toInt(), 3);
    EXPECT_FALSE(QFileInfo::exists(destination));
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
