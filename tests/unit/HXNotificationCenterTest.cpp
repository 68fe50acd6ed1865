#include "system/HXMainThread.h"
#include "system/HXNotificationCenter.h"

#include <QCoreApplication>
#include <QStringList>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

struct Delivery {
    QString observer;
    QString name;
    QString value;
    bool onMainThread = false;
};

class HXNotificationCenterTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (HXNotificationCenter::ObserverId id : ids)
            center.removeObserver(id);
    }

    void observe(const QString &observer, const QString &name)
    {
        ids.push_back(center.addObserver(name, [this, observer](const HXNotification &notification) {
            deliveries.push_back({observer, notification.name,
                                  notification.userInfo.value("value").toString(), HXIsMainThread()});
        }));
    }

    HXNotificationCenter &center = HXNotificationCenter::defaultCenter();
    std::vector<HXNotificationCenter::ObserverId> ids;
    std::vector<Delivery> deliveries;  // touched on the main thread only
};

TEST_F(HXNotificationCenterTest, PostsFromAWorkerArriveOnTheMainThreadInOrderAndByName)
{
    observe("all", QString());
    observe("scan", "hxMendwellScanFinished");
    observe("other", "HXGrowlAlertClicked");

    std::atomic<bool> sawDeliveryBeforeReturn{false};
    std::thread worker([&] {
        center.postNotification("hxMendwellScanFinished", {{"value", "first"}});
        // With waiting the observers have run when the post returns.
        sawDeliveryBeforeReturn = true;
        center.postNotification("HXShortcutKeysReload", {{"value", "second"}});
    });
    while (!sawDeliveryBeforeReturn || deliveries.size() < 3)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    worker.join();

    QStringList seen;
    for (const Delivery &delivery : deliveries) {
        seen << delivery.observer + ' ' + delivery.name + ' ' + delivery.value;
        EXPECT_TRUE(delivery.onMainThread);
    }
    EXPECT_EQ(seen, (QStringList{"all hxMendwellScanFinished first", "scan hxMendwellScanFinished first",
                                 "all HXShortcutKeysReload second"}));
}

TEST_F(HXNotificationCenterTest, ObserversMayRemoveThemselvesAndOthersWhileCalled)
{
    HXNotificationCenter::ObserverId second = 0;
    int firstCalls = 0;
    int secondCalls = 0;
    HXNotificationCenter::ObserverId first = 0;
    first = center.addObserver("n", [&](const HXNotification &) {
        ++firstCalls;
        center.removeObserver(first);
        center.removeObserver(second);
    });
    second = center.addObserver("n", [&](const HXNotification &) { ++secondCalls; });
    center.postNotification("n");
    center.postNotification("n");
    EXPECT_EQ(firstCalls, 1);
    EXPECT_EQ(secondCalls, 0);
}

TEST_F(HXNotificationCenterTest, APostThatDoesNotWaitIsDeliveredByTheEventLoop)
{
    observe("late", "n");
    std::thread([&] { center.postNotification("n", {{"value", "queued"}}, false); }).join();
    EXPECT_TRUE(deliveries.empty());
    while (deliveries.empty())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    EXPECT_EQ(deliveries[0].value, "queued");
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
