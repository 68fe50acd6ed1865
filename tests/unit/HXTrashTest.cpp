#include "platform/Trash.h"

#include "tests/support/Process.h"

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

namespace {

constexpr uid_t kOtherUid = 1001;

class TrashTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        home = m_dir.path() + QStringLiteral("/home");
        work = m_dir.path() + QStringLiteral("/work");
        QDir().mkpath(home);
        QDir().mkpath(work);
        files = home + QStringLiteral("/.local/share/Trash/files");
        info = home + QStringLiteral("/.local/share/Trash/info");
    }

    QString write(const QString &relative, const QByteArray &contents = "contents\n") const
    {
        const QString path = work + QLatin1Char('/') + relative;
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
        return path;
    }

    static QByteArray read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // trash-cli run against this test's home.
    ProcessResult trashCli(const QStringList &arguments, const QByteArray &input = {}) const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), home);
        environment.remove(QStringLiteral("XDG_DATA_HOME"));
        return runProcess(arguments, environment.toStringList(), input);
    }

    QTemporaryDir m_dir;
    QString home, work, files, info;
};

TEST(TrashNames, NumberGoesBeforeTheFirstDot)
{
    EXPECT_EQ(platform::trash::candidateName(QStringLiteral("report.tar.gz"), 1),
              QStringLiteral("report.tar.gz"));
    EXPECT_EQ(platform::trash::candidateName(QStringLiteral("report.tar.gz"), 2),
              QStringLiteral("report.2.tar.gz"));
    EXPECT_EQ(platform::trash::candidateName(QStringLiteral("Makefile"), 3), QStringLiteral("Makefile.3"));
    EXPECT_EQ(platform::trash::candidateName(QStringLiteral(".plist"), 2), QStringLiteral(".2.plist"));
}

TEST(TrashNames, RecordEncodesThePathAndUsesLocalTime)
{
    const QDateTime when(QDate(2026, 3, 4), QTime(5, 6, 7), Qt::LocalTime);
    EXPECT_EQ(platform::trash::trashInfo(QStringLiteral("/Users/anna/My Prefs/50% \u00e9.plist"), when),
              QByteArray("[Trash Info]\nPath=/Users/anna/My%20Prefs/50%25%20%C3%A9.plist\n"
                         "DeletionDate=2026-03-04T05:06:07\n"));
}

TEST_F(TrashTest, MovesItemsAndWritesTheirRecords)
{
    const QString file = write(QStringLiteral("Prefs/Adobe Premiere Pro Prefs"), "prefs");
    const QString folder = work + QStringLiteral("/Prefs");
    write(QStringLiteral("Prefs/Layouts/one.xml"));

    const platform::trash::Outcome first = platform::trash::moveToTrash(file, files);
    ASSERT_TRUE(first.trashed) << first.error;
    EXPECT_EQ(first.trashedPath, files + QStringLiteral("/Adobe Premiere Pro Prefs"));
    EXPECT_EQ(read(first.trashedPath), QByteArray("prefs"));
    EXPECT_FALSE(QFileInfo::exists(file));

    const QByteArray record = read(info + QStringLiteral("/Adobe Premiere Pro Prefs.trashinfo"));
    EXPECT_TRUE(
        record.startsWith("[Trash Info]\nPath=" + platform::trash::encodedPath(file) + "\nDeletionDate="));
    EXPECT_TRUE(
        QRegularExpression(QStringLiteral("DeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n$"))
            .match(QString::fromLatin1(record))
            .hasMatch());

    const platform::trash::Outcome second = platform::trash::moveToTrash(folder, files);
    ASSERT_TRUE(second.trashed);
    EXPECT_TRUE(QFileInfo(files + QStringLiteral("/Prefs/Layouts/one.xml")).isFile());
    EXPECT_FALSE(QFileInfo::exists(folder));

    // A missing item is not trashed and leaves no record behind.
    EXPECT_FALSE(platform::trash::moveToTrash(folder, files).trashed);
    EXPECT_EQ(QDir(info).entryList(QDir::Files).size(), 2);
}

TEST_F(TrashTest, CollidingNamesAreNumberedAndStrayItemsAreKept)
{
    QDir().mkpath(files);
    QFile stray(files + QStringLiteral("/layout.2.xml"));
    ASSERT_TRUE(stray.open(QIODevice::WriteOnly));
    stray.write("stray");
    stray.close();

    QStringList trashed;
    for (const char *folder : {"a", "b", "c"}) {
        const QString path = write(QLatin1String(folder) + QStringLiteral("/layout.xml"), folder);
        const platform::trash::Outcome outcome = platform::trash::moveToTrash(path, files);
        ASSERT_TRUE(outcome.trashed);
        trashed.append(QFileInfo(outcome.trashedPath).fileName());
    }
    EXPECT_EQ(trashed, (QStringList{"layout.xml", "layout.3.xml", "layout.4.xml"}));
    EXPECT_EQ(read(files + QStringLiteral("/layout.2.xml")), QByteArray("stray"));
    EXPECT_EQ(read(files + QStringLiteral("/layout.4.xml")), QByteArray("c"));
    EXPECT_TRUE(
        read(info + QStringLiteral("/layout.4.xml.trashinfo")).contains(work.toUtf8() + "/c/layout.xml"));
}

TEST_F(TrashTest, SymbolicLinksAreTrashedThemselves)
{
    const QString target = write(QStringLiteral("target.txt"), "target");
    const QString link = work + QStringLiteral("/link.txt");
    ASSERT_TRUE(QFile::link(target, link));
    ASSERT_TRUE(platform::trash::moveToTrash(link, files).trashed);
    EXPECT_TRUE(QFileInfo(files + QStringLiteral("/link.txt")).isSymLink());
    EXPECT_EQ(read(target), QByteArray("target"));
}

TEST_F(TrashTest, TrashCliListsAndRestoresWhatWeTrashed)
{
    if (QStandardPaths::findExecutable(QStringLiteral("trash-list")).isEmpty())
        GTEST_SKIP() << "trash-cli is not installed";
    const QString plain = write(QStringLiteral("Settings/Workspace 1.xml"), "workspace");
    const QString other = write(QStringLiteral("Other/Workspace 1.xml"), "other");
    const QString odd = write(QStringLiteral("Other/50% caf\u00e9"), "odd");
    for (const QString &path : {plain, other, odd})
        ASSERT_TRUE(platform::trash::moveToTrash(path, files).trashed);

    const ProcessResult listed = trashCli({QStringLiteral("trash-list")});
    ASSERT_EQ(listed.exitCode, 0) << listed.err.constData();
    const QString list = QString::fromUtf8(listed.out);
    for (const QString &path : {plain, other, odd})
        EXPECT_TRUE(list.contains(QLatin1Char(' ') + path + QLatin1Char('\n'))) << list.toStdString();

    // trash-restore offers the items trashed from under a folder and reads the choice.
    const ProcessResult restored =
        trashCli({QStringLiteral("trash-restore"), work + QStringLiteral("/Settings")}, "0\n");
    ASSERT_EQ(restored.exitCode, 0) << restored.err.constData();
    EXPECT_EQ(read(plain), QByteArray("workspace"));
    EXPECT_FALSE(QFileInfo::exists(files + QStringLiteral("/Workspace 1.xml")));
    EXPECT_FALSE(QFileInfo::exists(other));
    EXPECT_TRUE(QFileInfo::exists(files + QStringLiteral("/Workspace 1.2.xml")));

    const ProcessResult oddRestored = trashCli({QStringLiteral("trash-restore"), odd}, "0\n");
    ASSERT_EQ(oddRestored.exitCode, 0) << oddRestored.err.constData();
    EXPECT_EQ(read(odd), QByteArray("odd"));
}

TEST_F(TrashTest, AsRootTheTrashIsHandedToItsUserAndLinksOutAreRefused)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    ASSERT_EQ(::chown(QFile::encodeName(home).constData(), kOtherUid, kOtherUid), 0);
    const QString path = write(QStringLiteral("root-owned.plist"));
    ASSERT_TRUE(platform::trash::moveToTrash(path, files).trashed);
    for (const QString &made :
         {home + QStringLiteral("/.local"), home + QStringLiteral("/.local/share/Trash"), files, info,
          info + QStringLiteral("/root-owned.plist.trashinfo")}) {
        struct stat status {};
        ASSERT_EQ(::lstat(QFile::encodeName(made).constData(), &status), 0) << made.toStdString();
        EXPECT_EQ(status.st_uid, kOtherUid) << made.toStdString();
    }
    struct stat item {};
    ASSERT_EQ(::lstat(QFile::encodeName(files + QStringLiteral("/root-owned.plist")).constData(), &item), 0);
    EXPECT_EQ(item.st_uid, 0u);

    // The user points the records folder somewhere root must not write.
    const QString elsewhere = m_dir.path() + QStringLiteral("/elsewhere");
    QDir().mkpath(elsewhere);
    ASSERT_TRUE(QDir(info).removeRecursively());
    ASSERT_TRUE(QFile::link(elsewhere, info));
    ASSERT_EQ(::lchown(QFile::encodeName(info).constData(), kOtherUid, kOtherUid), 0);
    const QString second = write(QStringLiteral("second.plist"));
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
    QTemporaryDir volume(QStringLiteral("/dev/shm/mendwell-trash-XXXXXX"));
    ASSERT_TRUE(volume.isValid());
    const QString name = QFileInfo(volume.path()).fileName() + QStringLiteral(".txt");
    const QString path = volume.path() + QLatin1Char('/') + name;
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();

    const QString volumeTrash = QStringLiteral("/dev/shm/.Trash-") + QString::number(::geteuid());
    const bool hadVolumeTrash = QFileInfo::exists(volumeTrash);
    const platform::trash::Outcome outcome = platform::trash::moveToTrash(path, files);
    ASSERT_TRUE(outcome.trashed) << outcome.error;
    EXPECT_EQ(outcome.trashedPath, volumeTrash + QStringLiteral("/files/") + name);
    EXPECT_TRUE(read(outcome.infoPath).contains("Path=" + platform::trash::encodedPath(path) + '\n'));
    EXPECT_FALSE(QFileInfo::exists(files + QLatin1Char('/') + name));
    QFile::remove(outcome.trashedPath);
    QFile::remove(outcome.infoPath);
    if (!hadVolumeTrash)
        QDir(volumeTrash).removeRecursively();
}

}  // namespace
