#include "system/HXTaskEx.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <condition_variable>
#include <fcntl.h>
#include <unistd.h>
#include <csignal>
#include <mutex>
#include <thread>
#include <vector>

using namespace Qt::Literals::StringLiterals;
using namespace std::chrono_literals;

namespace {

const QString kChild = QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/hxtaskchild");
const QString kMissing = u"/nonexistent/hxtaskchild"_s;

QByteArray dataOf(const QStringList &arguments, bool logOutput = true)
{
    return HXTaskEx::dataFromTask(kChild, arguments, nullptr, std::nullopt, logOutput).value_or("<none>");
}

// Collects what the asynchronous reader hands over.
struct Receiver {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<QByteArray> pieces;
    std::vector<bool> hadObject;
    int ends = 0;

    HXAsyncTaskHandler handler()
    {
        return [this](const QByteArray &piece, HXTaskEx &, const std::any *object) {
            std::lock_guard lock(mutex);
            pieces.push_back(piece);
            hadObject.push_back(object != nullptr && std::any_cast<int>(*object) == 42);
            if (piece.isEmpty())
                ++ends;
            changed.notify_all();
        };
    }
    void waitForEnd()
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return ends > 0; });
    }
};

}  // namespace

TEST(HXTaskExTest, OutputIsStandardOutputElseStandardError)
{
    EXPECT_EQ(dataOf({"out", "hello"}), "hello");
    EXPECT_EQ(dataOf({"err", "x"}), "x");
    EXPECT_EQ(dataOf({"both", "visible", "hidden"}), "visible");
    EXPECT_EQ(dataOf({"exit", "0"}), "");
    // Without logOutput the child writes to our own output; only errors come back.
    EXPECT_EQ(dataOf({"both", "", "only errors"}, false), "only errors");
    EXPECT_EQ(dataOf({"out", ""}, false), "");
}

TEST(HXTaskExTest, LargeOutputOnBothPipesDoesNotStall)
{
    // Several pipe buffers of errors before any output: a reader that drains
    // standard output first would wait forever.
    const QByteArray data = dataOf({"big", "3000000"});
    ASSERT_EQ(data.size(), 3000000);
    EXPECT_EQ(data.count('o'), 3000000);
}

TEST(HXTaskExTest, ChildSeesEndOfInputAndGivenEnvironment)
{
    EXPECT_EQ(dataOf({"stdin"}), "eof");
    const HXTaskEnvironment environment{{u"HX_PROBE"_s, u"probe value"_s}};
    EXPECT_EQ(HXTaskEx::dataFromTask(kChild, {"env", "HX_PROBE"}, nullptr, environment), "probe value");
    EXPECT_EQ(HXTaskEx::dataFromTask(kChild, {"env", "HOME"}, nullptr, environment), "(unset)");
}

TEST(HXTaskExTest, StringsAreAsciiUnlessAskedOtherwise)
{
    EXPECT_EQ(HXTaskEx::stringFromTask(kChild, {"out", "plain"}), u"plain"_s);
    // "A" followed by UTF-8 "é": strict ASCII gives no string at all.
    const QString refused = HXTaskEx::stringFromTask(kChild, {"hex", "41c3a9"});
    EXPECT_TRUE(refused.isNull());
    EXPECT_EQ(HXTaskEx::stringFromTask(kChild, {"hex", "41c3a9"}, HXStringEncoding::UTF8, nullptr),
              u"A\u00e9"_s);
    // A failed run gives the empty string, not a null one.
    const QString failed = HXTaskEx::stringFromTask(kMissing, {});
    EXPECT_TRUE(failed.isEmpty());
    EXPECT_FALSE(failed.isNull());
    EXPECT_TRUE(HXTaskEx::stringFromTask(kChild, {"exit", "0"}, 5s).isEmpty());
}

TEST(HXTaskExTest, ExitStatusAndUnrunnablePaths)
{
    EXPECT_EQ(HXTaskEx::terminationCodeFromTask(kChild, {"exit", "3"}), 3);
    EXPECT_EQ(HXTaskEx::terminationCodeFromTask(kChild, {"exit", "0"}), 0);
    EXPECT_EQ(HXTaskEx::terminationCodeFromTask(kMissing, {}), -1);
    EXPECT_FALSE(HXTaskEx::dataFromTask(kMissing, {}).has_value());
    EXPECT_FALSE(HXTaskEx::runTask(kMissing, {}));

    HXTask task;
    EXPECT_TRUE(HXTaskEx::runTask(kChild, {"exit", "7"}, &task));
    ASSERT_TRUE(task);
    EXPECT_EQ(task->terminationStatus(), 7);

    // An application bundle is a folder one may enter, but never a program.
    QTemporaryDir dir;
    const QString bundle = dir.path() + u"/Tool.app"_s;
    ASSERT_TRUE(QDir().mkpath(bundle));
    EXPECT_EQ(HXTaskEx::terminationCodeFromTask(bundle, {}), -1);
    EXPECT_FALSE(HXTaskEx::runTask(bundle, {}));
    // A file without the execute permission.
    // (Plain POSIX: a first QObject without an application object makes Qt keep
    // main-thread data that leak checkers report.)
    const QString plain = dir.path() + u"/plain"_s;
    const int fd = ::creat(QFile::encodeName(plain).constData(), 0644);
    ASSERT_GE(fd, 0);
    ::close(fd);
    EXPECT_EQ(HXTaskEx::terminationCodeFromTask(plain, {}), -1);
}

TEST(HXTaskExTest, TimedRunsTerminateAnOverrunningChild)
{
    // The child would sleep for five minutes; the limit ends it with SIGTERM.
    EXPECT_EQ(HXTaskEx::terminationCodeFromTask(kChild, {"sleep", "300"}, 2s), SIGTERM);
    // Output written before the limit is kept.
    EXPECT_EQ(HXTaskEx::dataFromTask(kChild, {"sleep", "300", "early words"}, 1s), "early words");
    HXTaskEx::runTask(kChild, {"sleep", "300"}, 1s);  // returns: the child was ended
    // A child that ignores the request is killed after the grace period.
    EXPECT_EQ(HXTaskEx::terminationCodeFromTask(kChild, {"stubborn", "300"}, 1s), SIGKILL);
    // A child within its limit is left alone, and the instance can run again.
    auto instance = HXTaskEx::create();
    EXPECT_EQ(instance->timedTerminationCodeFromTask(kChild, {"exit", "4"}, 30s), 4);
    EXPECT_EQ(instance->timedTerminationCodeFromTask(kChild, {"sleep", "300"}, 1s), SIGTERM);
    EXPECT_FALSE(instance->theTask());
}

TEST(HXTaskExTest, AsyncReaderDeliversEveryPieceThenOneEmptyPieceAndTheObject)
{
    auto reader = HXTaskEx::create();
    Receiver receiver;
    reader->asyncDataFromTask(kChild, {"pieces", "25"}, receiver.handler(), std::any(42));
    receiver.waitForEnd();
    std::this_thread::sleep_for(200ms);  // room for a wrong second end
    std::lock_guard lock(receiver.mutex);
    ASSERT_FALSE(receiver.pieces.empty());
    EXPECT_EQ(receiver.ends, 1);
    EXPECT_TRUE(receiver.pieces.back().isEmpty());
    QByteArray joined;
    for (const QByteArray &piece : receiver.pieces)
        joined += piece;
    QByteArray expected;
    for (int i = 0; i < 25; ++i)
        expected += "piece " + QByteArray::number(i) + "\n";
    EXPECT_EQ(joined, expected);
    for (bool hadObject : receiver.hadObject)
        EXPECT_TRUE(hadObject);
    EXPECT_FALSE(reader->theTask());

    // A silent tool, without an object: the empty piece alone.
    auto silentReader = HXTaskEx::create();
    Receiver silent;
    silentReader->asyncDataFromTask(kChild, {"exit", "0"}, silent.handler());
    silent.waitForEnd();
    std::this_thread::sleep_for(200ms);
    std::lock_guard silentLock(silent.mutex);
    ASSERT_EQ(silent.pieces.size(), 1u);
    EXPECT_TRUE(silent.pieces.front().isEmpty());
    EXPECT_FALSE(silent.hadObject.front());
}

TEST(HXTaskExTest, AsyncReaderStopsWhenTerminatedAndRefusesMissingTool)
{
    auto reader = HXTaskEx::create();
    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;
    HXTask child;
    reader->asyncDataFromTask(kChild, {"endless"}, [&](const QByteArray &, HXTaskEx &task, const std::any *) {
        std::lock_guard lock(mutex);
        if (++calls == 1) {
            child = task.theTask();
            task.terminateAsyncTask();
        }
        changed.notify_all();
    });
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return calls > 0; });
    }
    ASSERT_TRUE(child);
    child->waitUntilExit();
    EXPECT_EQ(child->terminationStatus(), SIGTERM);
    std::this_thread::sleep_for(300ms);
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(calls, 1);  // the receiver was released with the run
    }

    auto missing = HXTaskEx::create();
    Receiver receiver;
    missing->asyncDataFromTask(kMissing, {}, receiver.handler());
    std::this_thread::sleep_for(300ms);
    std::lock_guard lock(receiver.mutex);
    EXPECT_TRUE(receiver.pieces.empty());
}
