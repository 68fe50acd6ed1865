#include "platform/Trash.h"

#include "tests/support/Process.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr uid_t kOtherUid = 1001;

class TrashTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        home = m_dir.path() + u"/home"_s;
        work = m_dir.path() + u"/work"_s;
        ASSERT_TRUE(QDir().mkpath(home) && QDir().mkpath(work));
        files = home + u"/.local/share/Trash/files"_s;
        info = home + u"/.local/share/Trash/info"_s;
    }

    QString write(const QString &relative, const QByteArray &contents = "contents\n") const
    {
        EXPECT_TRUE(disk::write(work + u'/' + relative, contents));
        return work + u'/' + relative;
    }

    // trash-cli run against this test's home.
    ProcessResult trashCli(const QStringList &arguments, const QByteArray &input = {}) const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, home);
        environment.remove(u"XDG_DATA_HOME"_s);
        return runProcess(arguments, environment.toStringList(), input);
    }

    QTemporaryDir m_dir;
    QString home, work, files, info;
};

// A colliding name's number goes before the first dot; the record encodes the path and uses local time.
TEST(TrashNames, NumberedNamesAndRecords)
{
    EXPECT_EQ(platform::trash::candidateName(u"report.tar.gz"_s, 1), u"report.tar.gz"_s);
    EXPECT_EQ(platform::trash::candidateName(u"report.tar.gz"_s, 2), u"report.2.tar.gz"_s);
    EXPECT_EQ(platform::trash::candidateName(u"Makefile"_s, 3), u"Makefile.3"_s);
    EXPECT_EQ(platform::trash::candidateName(u".plist"_s, 2), u".2.plist"_s);
    const QDateTime when(QDate(2026, 3, 4), QTime(5, 6, 7), Qt::LocalTime);
    EXPECT_EQ(platform::trash::trashInfo(u"/Users/anna/My Prefs/50% \u00e9.plist"_s, when),
              QByteArray("[Trash Info]\nPath=/Users/anna/My%20Prefs/50%25%20%C3%A9.plist\n"
                         "DeletionDate=2026-03-04T05:06:07\n"));
}

TEST_F(TrashTest, MovesItemsAndWritesTheirRecords)
{
    const QString file = write(u"Prefs/Adobe Premiere Pro Prefs"_s, "prefs");
    const QString folder = work + u"/Prefs"_s;
    write(u"Prefs/Layouts/one.xml"_s);

    const platform::trash::Outcome first = platform::trash::moveToTrash(file, files);
    ASSERT_TRUE(first.trashed) << first.error;
    EXPECT_EQ(first.trashedPath, files + u"/Adobe Premiere Pro Prefs"_s);
    EXPECT_EQ(disk::read(first.trashedPath), QByteArray("prefs"));
    EXPECT_FALSE(QFileInfo::exists(file));

    const QByteArray record = disk::read(info + u"/Adobe Premiere Pro Prefs.trashinfo"_s);
    EXPECT_TRUE(
        record.startsWith("[Trash Info]\nPath=" + platform::trash::encodedPath(file) + "\nDeletionDate="));
    EXPECT_TRUE(QRegularExpression(u"DeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n$"_s)
                    .match(QString::fromLatin1(record))
                    .hasMatch());

    const platform::trash::Outcome second = platform::trash::moveToTrash(folder, files);
    ASSERT_TRUE(second.trashed);
    EXPECT_TRUE(QFileInfo(files + u"/Prefs/Layouts/one.xml"_s).isFile());
    EXPECT_FALSE(QFileInfo::exists(folder));

    // A missing item is not trashed and leaves no record behind.
    EXPECT_FALSE(platform::trash::moveToTrash(folder, files).trashed);
    EXPECT_EQ(QDir(info).entryList(QDir::Files).size(), 2);
}

TEST_F(TrashTest, CollidingNamesAreNumberedAndStrayItemsAreKept)
{
    ASSERT_TRUE(disk::write(files + u"/layout.2.xml"_s, "stray"));

    QStringList trashed;
    for (const char *folder : {"a", "b", "c"}) {
        const QString path = write(QLatin1String(folder) + u"/layout.xml"_s, folder);
        const platform::trash::Outcome outcome = platform::trash::moveToTrash(path, files);
        ASSERT_TRUE(outcome.trashed);
        trashed.append(QFileInfo(outcome.trashedPath).fileName());
    }
    EXPECT_EQ(trashed, (QStringList{"layout.xml", "layout.3.xml", "layout.4.xml"}));
    EXPECT_EQ(disk::read(files + u"/layout.2.xml"_s), QByteArray("stray"));
    EXPECT_EQ(disk::read(files + u"/layout.4.xml"_s), QByteArray("c"));
    EXPECT_TRUE(disk::read(info + u"/layout.4.xml.trashinfo"_s).contains(work.toUtf8() + "/c/layout.xml"));
}

TEST_F(TrashTest, SymbolicLinksAreTrashedThemselves)
{
    const QString target = write(u"target.txt"_s, "target");
    const QString link = work + u"/link.txt"_s;
    ASSERT_TRUE(QFile::link(target, link));
    ASSERT_TRUE(platform::trash::moveToTrash(link, files).trashed);
    EXPECT_TRUE(QFileInfo(files + u"/link.txt"_s).isSymLink());
    EXPECT_EQ(disk::read(target), QByteArray("target"));
}

TEST_F(TrashTest, TrashCliListsAndRestoresWhatWeTrashed)
{
    if (QStandardPaths::findExecutable(u"trash-list"_s).isEmpty())
        GTEST_SKIP() << "trash-cli is not installed";
    const QString plain = write(u"Settings/Workspace 1.xml"_s, "workspace");
    const QString other = write(u"Other/Workspace 1.xml"_s, "other");
    const QString odd = write(u"Other/50% caf\u00e9"_s, "odd");
    for (const QString &path : {plain, other, odd})
        ASSERT_TRUE(platform::trash::moveToTrash(path, files).trashed);

    const ProcessResult listed = trashCli({u"trash-list"_s});
    ASSERT_EQ(listed.exitCode, 0) << listed.err.constData();
    const QString list = QString::fromUtf8(listed.out);
    for (const QString &path : {plain, other, odd})
        EXPECT_TRUE(list.contains(u' ' + path + u'\n')) << list.toStdString();

    // trash-restore offers the items trashed from under a folder and reads the choice.
    const ProcessResult restored = trashCli({u"trash-restore"_s, work + u"/Settings"_s}, "0\n");
    ASSERT_EQ(restored.exitCode, 0) << restored.err.constData();
    EXPECT_EQ(disk::read(plain), QByteArray("workspace"));
    EXPECT_FALSE(QFileInfo::exists(files + u"/Workspace 1.xml"_s));
    EXPECT_FALSE(QFileInfo::exists(other));
    EXPECT_TRUE(QFileInfo::exists(files + u"/Workspace 1.2.xml"_s));

    const ProcessResult oddRestored = trashCli({u"trash-restore"_s, odd}, "0\n");
    ASSERT_EQ(oddRestored.exitCode, 0) << oddRestored.err.constData();
    EXPECT_EQ(disk::read(odd), QByteArray("odd"));
}

TEST_F(TrashTest, AsRootTheTrashIsHandedToItsUserAndLinksOutAreRefused)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    ASSERT_TRUE(disk::chown(home, kOtherUid, kOtherUid));
    const QString path = write(u"root-owned.plist"_s);
    ASSERT_TRUE(platform::trash::moveToTrash(path, files).trashed);
    for (const QString &made : {home + u"/.local"_s, home + u"/.local/share/Trash"_s, files, info,
                                info + u"/root-owned.plist.trashinfo"_s})
        EXPECT_EQ(disk::info(made).st_uid, kOtherUid) << made.toStdString();
    ASSERT_TRUE(QFileInfo::exists(files + u"/root-owned.plist"_s));
    EXPECT_EQ(disk::info(files + u"/root-owned.plist"_s).st_uid, 0u);

    // The user points the records folder somewhere root must not write.
    const QString elsewhere = m_dir.path() + u"/elsewhere"_s;
    QDir().mkpath(elsewhere);
    ASSERT_TRUE(QDir(info).removeRecursively());
    ASSERT_TRUE(QFile::link(elsewhere, info));
    ASSERT_TRUE(disk::chown(info, kOtherUid, kOtherUid));
    const QString second = write(u"second.plist"_s);
    EXPECT_FALSE(platform::trash::moveToTrash(second, files).trashed);
    EXPECT_TRUE(QFileInfo::exists(second));
    EXPECT_TRUE(QDir(elsewhere).isEmpty());
}

TEST_F(TrashTest, ItemsOnAnotherFileSystemGoToThatVolumesTrash)
{
    struct stat shm {};
    struct stat temp {};
    if (::stat("/dev/shm", &shm) != 0 || ::stat(QFile::encodeName(home).constData(), &temp) != 0 ||
        shm.st_dev == temp.st_dev || ::access("/dev/shm", W_OK) != 0)
        GTEST_SKIP() << "no second writable file system at /dev/shm";
    QTemporaryDir volume(u"/dev/shm/mendwell-trash-XXXXXX"_s);
    ASSERT_TRUE(volume.isValid());
    const QString name = QFileInfo(volume.path()).fileName() + u".txt"_s;
    const QString path = volume.path() + u'/' + name;
    ASSERT_TRUE(disk::write(path));

    const QString volumeTrash = u"/dev/shm/.Trash-"_s + QString::number(::geteuid());
    const bool hadVolumeTrash = QFileInfo::exists(volumeTrash);
    const platform::trash::Outcome outcome = platform::trash::moveToTrash(path, files);
    ASSERT_TRUE(outcome.trashed) << outcome.error;
    EXPECT_EQ(outcome.trashedPath, volumeTrash + u"/files/"_s + name);
    EXPECT_TRUE(disk::read(outcome.infoPath).contains("Path=" + platform::trash::encodedPath(path) + '\n'));
    EXPECT_FALSE(QFileInfo::exists(files + u'/' + name));
    QFile::remove(outcome.trashedPath);
    QFile::remove(outcome.infoPath);
    if (!hadVolumeTrash)
        QDir(volumeTrash).removeRecursively();
}

}  // namespace
