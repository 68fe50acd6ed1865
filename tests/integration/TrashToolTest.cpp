// trashtool as a repair runs it: root, anna at the console. What it moves lands in
// anna's home trash with records a file manager restores from, all of it hers;
// protected folders are refused under every spelling.

#include "tests/support/Sandbox.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace {

const QString kTool = u"/Applications/Mendwell.app/Contents/MacOS/trashtool"_s;
const QString kCaches = u"/Users/anna/Library/Caches/Adobe"_s;
const QString kTrash = u"/Users/anna/.local/share/Trash"_s;

class TrashToolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        for (const char *name : {"Media Cache.db", "Peak Files/a.pek", "Peak Files/b.pek"})
            ASSERT_TRUE(box.writeFile(kCaches + u'/' + QLatin1String(name), name, true));
    }

    Sandbox box;
};

TEST_F(TrashToolTest, MovesAnItemOrAFoldersContentsIntoTheConsoleUsersTrashWithRecords)
{
    const ProcessResult one = box.runAsRoot({kTool, kCaches + "/Media Cache.db"});
    EXPECT_EQ(one.exitCode, 0) << one.err.constData();
    const ProcessResult contents = box.runAsRoot({kTool, "-dircontents", kCaches + "/Peak Files"});
    EXPECT_EQ(contents.exitCode, 0) << contents.err.constData();

    EXPECT_EQ(box.readFile(kTrash + "/files/Media Cache.db"), "Media Cache.db");
    EXPECT_EQ(box.readFile(kTrash + "/files/b.pek"), "Peak Files/b.pek");
    EXPECT_TRUE(QDir(box.hostPath(kCaches + "/Peak Files")).isEmpty());
    const QByteArray record = box.readFile(kTrash + "/info/a.pek.trashinfo");
    EXPECT_TRUE(record.startsWith("[Trash Info]\nPath=/Users/anna/Library/Caches/Adobe/Peak%20Files/a.pek\n"
                                  "DeletionDate="))
        << record.constData();
    for (const QString &made : {u"/Users/anna/.local"_s, kTrash, kTrash + "/files", kTrash + "/info",
                                kTrash + "/info/Media Cache.db.trashinfo"}) {
        const struct stat info = disk::info(box.hostPath(made));
        EXPECT_TRUE(info.st_uid == Sandbox::userId() && info.st_gid == Sandbox::userGroupId())
            << qPrintable(made);
    }
}

TEST_F(TrashToolTest, RefusesProtectedFoldersUnderAnySpellingAndBadArguments)
{
    ASSERT_TRUE(QFile::link(u"/Users/anna/Library"_s, box.hostPath("/Library/AnnasLibrary")));
    for (const QStringList &arguments :
         {QStringList{"-dircontents", "/Users/anna//Library"},
          QStringList{"-dircontents", "/Users/anna/Library/."},
          QStringList{"-dircontents", "/Library/AnnasLibrary"}, QStringList{"/Users/anna/Library/Caches/"}}) {
        const ProcessResult refused = box.runAsRoot(QStringList{kTool} + arguments);
        EXPECT_EQ(refused.exitCode, 1) << qPrintable(arguments.join(u' '));
        EXPECT_TRUE(refused.err.contains("because it is a system directory.\n")) << refused.err.constData();
    }
    EXPECT_TRUE(box.exists(kCaches + "/Media Cache.db"));
    EXPECT_FALSE(box.exists(kTrash + "/files"));

    for (const QStringList &arguments : {QStringList{}, QStringList{"-dircontents"}, QStringList{"a", "b"}}) {
        const ProcessResult bad = box.runAsRoot(QStringList{kTool} + arguments);
        EXPECT_EQ(bad.exitCode, 2);
        EXPECT_TRUE(bad.err.startsWith("usage: ")) << bad.err.constData();
    }
    const ProcessResult missing = box.runAsRoot({kTool, kCaches + "/gone"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err,
              "trashtool: could not trash " + (kCaches + "/gone").toUtf8() + ": No such file or directory\n");
}

}  // namespace
