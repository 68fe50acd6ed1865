#include "fs/HXFileAttributes.h"
#include "tests/support/TestFiles.h"

#include <QDateTime>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace HXFileManager;
using namespace Qt::Literals::StringLiterals;

TEST(TimeStamps, ModificationDateAndTouch)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const auto path = [&dir](const QString &name) { return dir.filePath(name); };
    const QString file = path(u"f"_s);
    ASSERT_TRUE(disk::write(file));
    const QDateTime past = QDateTime::fromSecsSinceEpoch(1000000000, Qt::UTC).addMSecs(250);
    EXPECT_TRUE(setModificationDate(past, file));
    EXPECT_EQ(QFileInfo(file).lastModified().toUTC(), past);
    EXPECT_FALSE(setModificationDate(past, path(u"missing"_s)));

    EXPECT_FALSE(touchFile(QString()));
    EXPECT_TRUE(touchFile(file, true));
    EXPECT_GT(QFileInfo(file).lastModified(), past.addYears(10));
    // "-c": touching never creates the file.
    touchFile(path(u"new"_s));
    EXPECT_FALSE(QFileInfo::exists(path(u"new"_s)));
}
