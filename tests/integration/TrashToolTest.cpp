// trashtool as a repair runs it: root, anna at the console. What it moves lands in
// anna's home trash with records a file manager restores from, all of it hers;
// protected folders are refused under every spelling.

#include "tests/support/Sandbox.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kTool = QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/trashtool");
const QString kCaches = QStringLiteral("/Users/anna/Library/Caches/Adobe");
const QString kTrash = QStringLiteral("/Users/anna/.local/share/Trash");

class TrashToolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_SANDBOX();
        for (const char *name : {"Media Cache.db", "Peak Files/a.pek", "Peak Files/b.pek"})
            ASSERT_TRUE(box.writeFile(kCaches + u'/' + QLatin1String(name), name, true));
    }

    void expectAnnas(const QString &path)
    {
        struct stat info {};
        ASSERT_EQ(::lstat(QFile::encodeName(box.hostPath(path)).constData(), &info), 0) << qPrintable(path);
        EXPECT_EQ(info.st_uid, annaUid) << qPrintable(path);
        EXPECT_EQ(info.st_gid, annaGid) << qPrintable(path);
    }

    Sandbox box;
    const uid_t annaUid = Sandbox::userId();
    const gid_t annaGid = Sandbox::userGroupId();
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
    for (const QString &made : {QStringLiteral("/Users/anna/.local"), kTrash, kTrash + "/files",
                                kTrash + "/info", kTrash + "/info/Media Cache.db.trashinfo"})
        expectAnnas(made);
}

TEST_F(TrashToolTest, RefusesProtectedFoldersUnderAnySpellingAndBadArguments)
{
    ASSERT_TRUE(QFile::link(QStringLiteral("/Users/anna/Library"), box.hostPath("/Library/AnnasLibrary")));
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
