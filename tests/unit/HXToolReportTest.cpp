// The report lines of the helper tools: what they say is what the record reads,
// and no name can make a line of its own.

#include "app/audit/HXToolReport.h"

#include <QVariantMap>

#include <gtest/gtest.h>

TEST(HXToolReportTest, NamesWithTabsAndNewlinesCannotForgeLines)
{
    const QString forged = QStringLiteral("evil\nended\tfake\t1\t/x\tKILL\tname");
    QByteArray out =
        HXToolReport::endedProcessLine(forged, 42, QStringLiteral("/Apps/A B/") + forged, "TERM");
    out += "killtool: still running: something\n";  // a message, not a report
    platform::ItemAttributes before;
    before.mode = S_IFREG | 0600;
    before.owner = 0;
    before.immutable = true;
    platform::ItemAttributes after = before;
    after.mode = S_IFREG | 0644;
    after.immutable = false;
    out += HXToolReport::permissionChangeLine(QStringLiteral("/Users/anna/a\tb\nchanged"), before, after);

    const QVariantList processes = HXToolReport::endedProcessesIn(out);
    ASSERT_EQ(processes.size(), 1);
    const QVariantMap process = processes.first().toMap();
    EXPECT_EQ(process.value("name").toString(), forged);
    EXPECT_EQ(process.value("pid").toLongLong(), 42);
    EXPECT_EQ(process.value("path").toString(), QStringLiteral("/Apps/A B/") + forged);
    EXPECT_EQ(process.value("signal").toString(), QStringLiteral("TERM"));

    const QVariantList changes = HXToolReport::permissionChangesIn(out);
    ASSERT_EQ(changes.size(), 1);
    const QVariantMap change = changes.first().toMap();
    EXPECT_EQ(change.value("path").toString(), QStringLiteral("/Users/anna/a\tb\nchanged"));
    EXPECT_EQ(change.value("ownerBefore").toString(), QStringLiteral("root"));
    EXPECT_EQ(change.value("modeBefore").toString(), QStringLiteral("600"));
    EXPECT_EQ(change.value("modeAfter").toString(), QStringLiteral("644"));
    EXPECT_TRUE(change.value("lockedBefore").toBool());
    EXPECT_FALSE(change.value("lockedAfter").toBool());
}
