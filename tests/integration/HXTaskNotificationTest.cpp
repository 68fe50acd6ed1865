// Progress reports from a real reporting process (in the sandbox, as the console
// user) to stand-in client applications, on a session bus of the test's own.

#include "system/HXTaskNotification.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TestCallbackClient.h"
#include "tests/support/TestSessionBus.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QProcess>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace {

TestSessionBus *bus = nullptr;

const QString kKestrelkit = QString::fromLatin1(HXTaskNotification::kPreferredClientName);
const QString kMarlin = QString::fromLatin1(HXTaskNotification::kFallbackClientName);
const QString kEverything =
    QStringLiteral("incrementRemoteProgress,postFinishedTask,postError,postErrorString,"
                   "postDisconnect,postErrorForApp,postErrorStringUserInfo");
const QString kLog = QStringLiteral("/Users/anna/Library/Logs/Lanternfish/taskreporter.1.log");

class HXTaskNotificationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        ASSERT_TRUE(bus != nullptr && bus->isRunning());
        reporter = box.installTestProgram(QStringLiteral("taskreporter"));
    }

    // Runs the reporter with REPORTS; returns its output ("<report> <microseconds>").
    QStringList report(const QStringList &reports)
    {
        const ProcessResult result =
            box.runAsUser(QStringList{reporter} + reports, {bus->environmentEntry()});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        return QString::fromUtf8(result.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    // The reporter's log lines after the header, without their dates.
    QStringList loggedLines() const
    {
        QStringList lines;
        for (const QString &line :
             QString::fromUtf8(box.readFile(kLog)).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            lines.append(line.section(QStringLiteral(" - "), 1));
        return lines.mid(headerLines);
    }

    const QStringList allReports{
        QStringLiteral("progress"), QStringLiteral("finished"), QStringLiteral("error"),
        QStringLiteral("errorstring=Unable to quit Adobe Premiere Pro application - busy"),
        QStringLiteral("disconnect")};
    Sandbox box;
    QString reporter;
    int headerLines = 0;

    // With a client there, each report pauses 15 ms so a burst cannot flood it
    // (a lower bound only: how much longer a report takes is the machine's).
    static void expectPausedAfterEach(const QStringList &out)
    {
        ASSERT_FALSE(out.isEmpty());
        for (const QString &line : out)
            EXPECT_GE(line.section(QLatin1Char(' '), -1).toLongLong(), 15000) << line.toStdString();
    }

    void measureHeader()
    {
        report({});
        headerLines = static_cast<int>(
            QString::fromUtf8(box.readFile(kLog)).split(QLatin1Char('\n'), Qt::SkipEmptyParts).size());
    }
};

TEST_F(HXTaskNotificationTest, WithoutAClientEveryReportVanishesWithoutALogLine)
{
    measureHeader();
    const QStringList out = report(allReports);
    EXPECT_EQ(out.size(), allReports.size());
    for (const QString &line : out)
        std::printf("no client: %s us\n", qPrintable(line));
    EXPECT_EQ(loggedLines(), QStringList());
}

TEST_F(HXTaskNotificationTest, OnlyTheSuiteApplicationHearsWhenBothClientsRunAndGetsTheRicherMessages)
{
    TestCallbackClient kestrelkit(kKestrelkit, kEverything);
    TestCallbackClient marlin(kMarlin, kEverything);
    ASSERT_TRUE(kestrelkit.isReady() && marlin.isReady());
    measureHeader();
    const QStringList out = report(allReports);
    for (const QString &line : out)
        std::printf("client: %s us\n", qPrintable(line));
    expectPausedAfterEach(out);

    EXPECT_EQ(
        kestrelkit.received(),
        (QStringList{
            QStringLiteral("incrementRemoteProgress|oneway"),
            QStringLiteral("postFinishedTask|oneway"),
            QStringLiteral(
                "postErrorForApp|oneway|{code=42,description=Something failed,domain=HXTestDomain}|"
                "taskreporter"),
            QStringLiteral("postErrorStringUserInfo|oneway|Unable to quit Adobe Premiere Pro application - "
                           "busy|{appName=taskreporter}"),
            QStringLiteral("postDisconnect|oneway"),
        }));
    EXPECT_EQ(marlin.received(), QStringList());
    EXPECT_EQ(loggedLines(), QStringList());
}

TEST_F(HXTaskNotificationTest, AClientWithThePlainMessagesOnlyGetsThoseAndNothingItLacks)
{
    measureHeader();
    {
        TestCallbackClient marlin(kMarlin, QStringLiteral("postErrorString"));
        ASSERT_TRUE(marlin.isReady());
        // The pause comes also after the reports this client could not take.
        expectPausedAfterEach(report(allReports));
        EXPECT_EQ(marlin.received(),
                  QStringList{QStringLiteral(
                      "postErrorString|oneway|Unable to quit Adobe Premiere Pro application - busy")});
    }
    {
        TestCallbackClient marlin(kMarlin, QStringLiteral("postError"));
        ASSERT_TRUE(marlin.isReady());
        report(allReports);
        EXPECT_EQ(marlin.received(),
                  QStringList{QStringLiteral(
                      "postError|oneway|{code=42,description=Something failed,domain=HXTestDomain}")});
    }
    EXPECT_EQ(loggedLines(), QStringList());
}

TEST_F(HXTaskNotificationTest, AClientThatStopsAnsweringCostsOneLogLinePerReport)
{
    TestCallbackClient kestrelkit(kKestrelkit, kEverything);
    ASSERT_TRUE(kestrelkit.isReady());
    measureHeader();
    kestrelkit.freeze();
    report({QStringLiteral("progress"), QStringLiteral("errorstring=lost")});
    const QStringList lines = loggedLines();
    ASSERT_EQ(lines.size(), 2) << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_TRUE(lines[0].startsWith(
        QLatin1String("Exception in +[HXTaskNotification postIncrementProgress]. NSPortTimeoutException - ")))
        << lines[0].toStdString();
    EXPECT_TRUE(lines[1].startsWith(
        QLatin1String("Exception in +[HXTaskNotification postTaskErrorString:]. NSPortTimeoutException - ")))
        << lines[1].toStdString();
}

}  // namespace

int main(int argc, char **argv)
{
    TestSessionBus sessionBus;
    sessionBus.useForThisProcess();
    bus = &sessionBus;
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
