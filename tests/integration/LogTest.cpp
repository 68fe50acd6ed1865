#include "tests/support/Sandbox.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include <sys/stat.h>

namespace {

const QString kFolder = QStringLiteral("/Users/anna/Library/Logs/Lanternfish");

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        driver = box.installTestProgram(QStringLiteral("mendwell-logdriver"));
    }

    ProcessResult drive(const QStringList &arguments) const
    {
        return box.runAsUser(QStringList{driver} + arguments);
    }

    QString generation(const QString &name, int number) const
    {
        return kFolder + QStringLiteral("/%1.%2.log").arg(name).arg(number);
    }

    QStringList lines(const QString &path) const
    {
        return QString::fromUtf8(box.readFile(path)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    // The text of a log line, after "<date> - ".
    static QString textOf(const QString &line) { return line.section(QStringLiteral(" - "), 1); }

    Sandbox box;
    QString driver;
};

TEST_F(LogTest, NewLogShiftsFiveGenerationsAndWritesHeader)
{
    for (int i = 1; i <= 5; ++i)
        ASSERT_TRUE(box.writeFile(generation(QStringLiteral("Rot"), i),
                                  QByteArray("gen ") + QByteArray::number(i), true));
    const ProcessResult result = drive({QStringLiteral("create"), QStringLiteral("Rot")});
    ASSERT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();

    for (int i = 2; i <= 5; ++i)
        EXPECT_EQ(box.readFile(generation(QStringLiteral("Rot"), i)),
                  QByteArray("gen ") + QByteArray::number(i - 1));
    const QStringList header = lines(generation(QStringLiteral("Rot"), 1));
    ASSERT_GE(header.size(), 4);
    EXPECT_TRUE(QRegularExpression(
                    QStringLiteral(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4} - Log started: \d{4}-)"))
                    .match(header[0])
                    .hasMatch())
        << header[0].toStdString();
    EXPECT_TRUE(
        textOf(header[1]).startsWith(QStringLiteral("Path: /Applications/TestPrograms/mendwell-logdriver")));
    EXPECT_TRUE(
        QRegularExpression(QStringLiteral(R"(^System: OS X \d+\.\d+\.\d+, \d+ CPU\(s\), \d+\.\d\d GB RAM$)"))
            .match(textOf(header[2]))
            .hasMatch())
        << header[2].toStdString();
    EXPECT_EQ(textOf(header[3]), QStringLiteral("Running in 64-bit mode"));
    EXPECT_FALSE(box.exists(generation(QStringLiteral("Rot"), 6)));
}

TEST_F(LogTest, UnmovableGenerationStopsTheRotationAndKeepsGenerationOne)
{
    // A folder of hers with something in it holds the name of generation 5.
    ASSERT_TRUE(
        box.writeFile(generation(QStringLiteral("Stuck"), 5) + QStringLiteral("/kept"), "kept", true));
    for (int i = 1; i <= 4; ++i)
        ASSERT_TRUE(box.writeFile(generation(QStringLiteral("Stuck"), i),
                                  QByteArray("gen ") + QByteArray::number(i), true));
    const ProcessResult result = drive({QStringLiteral("create"), QStringLiteral("Stuck")});
    EXPECT_EQ(result.out,
              QByteArray("Unable to move file /Users/anna/Library/Logs/Lanternfish/Stuck.4.log to "
                         "/Users/anna/Library/Logs/Lanternfish/Stuck.5.log.\n"));
    for (int i = 1; i <= 4; ++i)
        EXPECT_EQ(box.readFile(generation(QStringLiteral("Stuck"), i)),
                  QByteArray("gen ") + QByteArray::number(i));
    EXPECT_TRUE(box.exists(generation(QStringLiteral("Stuck"), 5) + QStringLiteral("/kept")));
}

TEST_F(LogTest, NothingRotatesWithoutAGenerationOne)
{
    ASSERT_TRUE(box.writeFile(generation(QStringLiteral("Gap"), 2), "second", true));
    ASSERT_TRUE(box.writeFile(generation(QStringLiteral("Gap"), 4), "fourth", true));
    ASSERT_EQ(drive({QStringLiteral("create"), QStringLiteral("Gap")}).exitCode, 0);
    EXPECT_EQ(box.readFile(generation(QStringLiteral("Gap"), 2)), QByteArray("second"));
    EXPECT_EQ(box.readFile(generation(QStringLiteral("Gap"), 4)), QByteArray("fourth"));
    EXPECT_FALSE(box.exists(generation(QStringLiteral("Gap"), 3)));
    EXPECT_FALSE(lines(generation(QStringLiteral("Gap"), 1)).isEmpty());

    const ProcessResult listed = drive({QStringLiteral("available"), QStringLiteral("Gap")});
    EXPECT_EQ(QString::fromUtf8(listed.out), generation(QStringLiteral("Gap"), 1) + QLatin1Char('\n') +
                                                 generation(QStringLiteral("Gap"), 2) + QLatin1Char('\n') +
                                                 generation(QStringLiteral("Gap"), 4) + QLatin1Char('\n'));
}

TEST_F(LogTest, FullLogTurnsOverWithTruncationNoticeAfterHeader)
{
    const ProcessResult result =
        drive({QStringLiteral("fill"), QStringLiteral("Big"), QStringLiteral("600000")});
    ASSERT_EQ(result.exitCode, 0) << result.out.toStdString();

    const qint64 fullSize = QFileInfo(box.hostPath(generation(QStringLiteral("Big"), 2))).size();
    EXPECT_GE(fullSize, 500000);
    EXPECT_LT(fullSize, 500000 + 200);  // checked after each line, so only the last line passes the limit

    const QStringList fresh = lines(generation(QStringLiteral("Big"), 1));
    ASSERT_GE(fresh.size(), 5);
    EXPECT_TRUE(textOf(fresh[0]).startsWith(QStringLiteral("Log started: ")));
    EXPECT_EQ(textOf(fresh[3]), QStringLiteral("Running in 64-bit mode"));
    EXPECT_EQ(textOf(fresh[4]), QStringLiteral("Log truncated at 500KB"));

    // Every line is kept, in order, across the turnover.
    const QStringList all = lines(generation(QStringLiteral("Big"), 2)) + fresh;
    int expected = 0;
    for (const QString &line : all) {
        const QString text = textOf(line);
        if (!text.startsWith(QStringLiteral("line ")))
            continue;
        ASSERT_EQ(text.mid(5, 8).toInt(), expected) << line.toStdString();
        ++expected;
    }
    EXPECT_GT(expected, 4600);
}

TEST_F(LogTest, ShortLineFromWorkerIsOnDiskWhenTheCallReturns)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        const ProcessResult result =
            drive({QStringLiteral("worker"), QStringLiteral("Flush"), QStringLiteral("99")});
        EXPECT_EQ(result.out, QByteArray("on-disk\n"));
    }
}

TEST_F(LogTest, PrintedCopyDoublesPercentWhileLogFormatsAgain)
{
    const ProcessResult result = drive(
        {QStringLiteral("print"), QStringLiteral("Print"), QStringLiteral("  Progress 100% of %@ done\n")});
    EXPECT_EQ(result.out, QByteArray("Progress 100%% of  done\n"));
    const QStringList logged = lines(generation(QStringLiteral("Print"), 1));
    ASSERT_FALSE(logged.isEmpty());
    // "% o" is a conversion with nothing to convert; "%@" likewise.
    EXPECT_EQ(textOf(logged.last()), QStringLiteral("Progress 100f  done"));
}

TEST_F(LogTest, UncaughtExceptionReasonReachesDiskBeforeTheEnd)
{
    const ProcessResult result = drive({QStringLiteral("throw"), QStringLiteral("disk on fire")});
    EXPECT_TRUE(result.crashed || result.exitCode != 0);
    EXPECT_TRUE(result.out.contains("disk on fire"));
    const QStringList logged = lines(generation(QStringLiteral("Thrower"), 1));
    ASSERT_FALSE(logged.isEmpty());
    EXPECT_EQ(textOf(logged.last()), QStringLiteral("disk on fire"));
}

TEST_F(LogTest, WillTerminateWritesWhatLittleIsQueuedThenCloses)
{
    // Fewer than 20 queued lines are written before the end; later lines are dropped
    // and the name is forgotten.
    ProcessResult result = drive({QStringLiteral("quit"), QStringLiteral("Quit"), QStringLiteral("5")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, QByteArray("mendwell-logdriver\n"));
    QStringList logged = lines(generation(QStringLiteral("Quit"), 1));
    ASSERT_FALSE(logged.isEmpty());
    EXPECT_EQ(textOf(logged.last()), QStringLiteral("before quit 4"));
    EXPECT_EQ(logged.filter(QStringLiteral("before quit")).size(), 5);
    EXPECT_TRUE(logged.filter(QStringLiteral("after quit")).isEmpty());
}

// Eight threads through many turnovers: what the five generations still hold is,
// for every thread still writing then, an unbroken run of its lines ending with its
// last, each once (a thread done before them has none left).
TEST_F(LogTest, LinesFromManyThreadsSurviveTurnoversWholeAndInOrder)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 100000;
    const ProcessResult result = drive({QStringLiteral("stress"), QStringLiteral("Stress"),
                                        QString::number(kThreads), QString::number(kLines)});
    ASSERT_EQ(result.exitCode, 0) << result.out.toStdString();

    static const QRegularExpression pattern(QStringLiteral("^s(\\d) (\\d{6})$"));
    std::vector<int> next(kThreads, -1);
    qsizetype found = 0;
    for (int number = 5; number >= 1; --number) {
        const QString path = generation(QStringLiteral("Stress"), number);
        if (number > 1) {
            EXPECT_GE(QFileInfo(box.hostPath(path)).size(), 500000) << path.toStdString();
        }
        for (const QString &line : lines(path)) {
            const QRegularExpressionMatch match = pattern.match(textOf(line));
            if (!match.hasMatch())
                continue;
            const int thread = match.captured(1).toInt();
            const int n = match.captured(2).toInt();
            ASSERT_LT(thread, kThreads) << line.toStdString();
            if (next[thread] >= 0) {
                ASSERT_EQ(n, next[thread]) << "thread " << thread << " in " << path.toStdString();
            }
            next[thread] = n + 1;
            ++found;
        }
    }
    for (int thread = 0; thread < kThreads; ++thread) {
        if (next[thread] >= 0) {
            EXPECT_EQ(next[thread], kLines) << "thread " << thread;
        }
    }
    EXPECT_GT(found, 40000);
    std::printf("lines written %d, found in the five generations %lld\n", kThreads * kLines,
                static_cast<long long>(found));
}

}  // namespace
