// Distributed notifications on a session bus of the test's own, between this
// program and real sender processes.

#include "system/HXDistributedNotificationCenter.h"
#include "system/HXMainThread.h"
#include "tests/support/Process.h"
#include "tests/support/TestSessionBus.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <thread>

using namespace Qt::Literals::StringLiterals;

namespace {

TestSessionBus *bus = nullptr;

class HXDistributedNotificationTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(bus != nullptr && bus->isRunning()); }

    void TearDown() override
    {
        for (auto id : ids)
            center.removeObserver(id);
    }

    void observe(const QString &name)
    {
        const auto id = center.addObserver(name, [this](const HXNotification &notification) {
            EXPECT_TRUE(HXIsMainThread());
            received.push_back(notification);
        });
        ASSERT_NE(id, 0u);
        ids.push_back(id);
    }

    // Runs the event loop until COUNT notifications have come (or a generous
    // while has passed, so that a lost one fails instead of hanging).
    void waitFor(std::size_t count)
    {
        QElapsedTimer timer;
        timer.start();
        while (received.size() < count && timer.elapsed() < 60000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }

    HXDistributedNotificationCenter &center = HXDistributedNotificationCenter::defaultCenter();
    std::vector<HXDistributedNotificationCenter::ObserverId> ids;
    std::vector<HXNotification> received;
};

TEST_F(HXDistributedNotificationTest, UserInformationSurvivesTheBusAndObserversGetTheirNamesOnly)
{
    observe(u"hxMendwellScanFinished"_s);
    int others = 0;
    ids.push_back(center.addObserver(u"HXShortcutKeysReload"_s, [&](const HXNotification &) { ++others; }));

    const QDateTime when = QDateTime::fromString(u"2026-11-22T19:52:18Z"_s, Qt::ISODate);
    const QVariantMap userInfo{
        {u"output"_s, u"Done.\n\nNo errors were found."_s},
        {u"count"_s, 3},
        {u"ok"_s, true},
        {u"when"_s, when},
        {u"nested"_s, QVariantMap{{u"list"_s, QVariantList{1, u"two"_s}}}},
    };
    // Posted from a worker, as the repair thread does.
    std::thread([&] { EXPECT_TRUE(center.postNotification(u"hxMendwellScanFinished"_s, userInfo)); }).join();
    EXPECT_TRUE(center.postNotification(u"hxMendwellScanFinished"_s));
    waitFor(2);

    ASSERT_EQ(received.size(), 2u);
    const QVariantMap got = received[0].userInfo;
    EXPECT_EQ(got.value(u"output"_s).toString(), u"Done.\n\nNo errors were found."_s);
    EXPECT_EQ(got.value(u"count"_s).toInt(), 3);
    EXPECT_EQ(got.value(u"ok"_s).typeId(), QMetaType::Bool);
    EXPECT_EQ(got.value(u"when"_s).toString(), u"2026-11-22T19:52:18Z"_s);
    const QVariantList list = got.value(u"nested"_s).toMap().value(u"list"_s).toList();
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[0].toInt(), 1);
    EXPECT_EQ(list[1].toString(), u"two"_s);
    EXPECT_TRUE(received[1].userInfo.isEmpty());
    EXPECT_EQ(others, 0);
}

TEST_F(HXDistributedNotificationTest, ASenderThatExitsRightAfterPostingStillDeliversIt)
{
    observe(QString());
    // Both with and without a Qt application object (the command-line mode has none).
    constexpr int kRuns = 10;
    for (int run = 0; run < kRuns; ++run) {
        for (const bool application : {true, false}) {
            QStringList arguments{QStringLiteral(MENDWELL_TEST_PROGRAMS_DIR "/distributedposter")};
            if (!application)
                arguments << u"--no-application"_s;
            arguments << u"hxMendwellScanFinished"_s << u"output=run %1"_s.arg(run);
            // The bus of this test reaches the sender through the environment.
            const ProcessResult result = runProcess(arguments);
            EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        }
    }
    waitFor(2 * kRuns);
    ASSERT_EQ(received.size(), std::size_t{2 * kRuns});
    for (int run = 0; run < kRuns; ++run)
        for (int copy = 0; copy < 2; ++copy)
            EXPECT_EQ(received[2 * run + copy].userInfo.value(u"output"_s).toString(), u"run %1"_s.arg(run));
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
