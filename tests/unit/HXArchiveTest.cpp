#include "fs/HXArchive.h"

#include "tests/support/Process.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <archive.h>
#include <archive_entry.h>

#include <functional>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr uid_t kPlainUser = 65534;
constexpr time_t kArchived = 1000000000;  // every crafted entry's modification time

struct ZipEntry {
    const char *name;
    mode_t type;
    mode_t perm;
    const char *data = "";  // a file's contents or a link's target
};

// Runs WORK as a plain user when the test runs as root, whose rights would hide
// what a plain user runs into.
bool asPlainUser(const std::function<bool()> &work)
{
    if (::geteuid() != 0)
        return work();
    const pid_t child = ::fork();
    if (child == 0) {
        const bool dropped = ::setgroups(0, nullptr) == 0 &&
                             ::setresgid(kPlainUser, kPlainUser, kPlainUser) == 0 &&
                             ::setresuid(kPlainUser, kPlainUser, kPlainUser) == 0;
        ::_exit(dropped && work() ? 0 : 1);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

class ArchiveTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        root = m_dir.path();
        folder = root + u"/Adobe Logs"_s;
        write(u"Adobe Logs/Premiere 1.log"_s, "first log\n");
        write(u"Adobe Logs/Crash/report.txt"_s, QByteArray(100000, 'x'));
        QDir().mkpath(folder + u"/Empty"_s);
        ASSERT_TRUE(QFile::link(u"Premiere 1.log"_s, folder + u"/latest.log"_s));
    }

    void write(const QString &relative, const QByteArray &contents) const
    {
        ASSERT_TRUE(disk::write(root + u'/' + relative, contents));
    }

    // A zip holding ENTRIES in this order, as any archiver could have made it.
    static void writeZip(const QString &zip, std::initializer_list<ZipEntry> entries)
    {
        archive *writer = archive_write_new();
        archive_write_set_format_zip(writer);
        ASSERT_EQ(archive_write_open_filename(writer, QFile::encodeName(zip).constData()), ARCHIVE_OK);
        for (const ZipEntry &item : entries) {
            archive_entry *entry = archive_entry_new();
            archive_entry_set_pathname(entry, item.name);
            archive_entry_set_filetype(entry, item.type);
            archive_entry_set_perm(entry, item.perm);
            archive_entry_set_mtime(entry, kArchived, 0);
            const la_int64_t size = item.type == AE_IFREG ? static_cast<la_int64_t>(qstrlen(item.data)) : 0;
            if (item.type == AE_IFLNK)
                archive_entry_set_symlink(entry, item.data);
            archive_entry_set_size(entry, size);
            EXPECT_EQ(archive_write_header(writer, entry), ARCHIVE_OK) << item.name;
            if (size > 0)
                archive_write_data(writer, item.data, static_cast<size_t>(size));
            archive_entry_free(entry);
        }
        archive_write_close(writer);
        archive_write_free(writer);
    }

    static mode_t modeOf(const QString &path) { return disk::info(path).st_mode & 07777; }

    // The entry names unzip reports, sorted.
    static QStringList unzipListing(const QString &zip)
    {
        const ProcessResult result = runProcess({u"unzip"_s, u"-Z1"_s, zip});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        QStringList names = QString::fromUtf8(result.out).split(u'\n', Qt::SkipEmptyParts);
        names.sort();
        return names;
    }

    QTemporaryDir m_dir;
    QString root, folder;
};

TEST_F(ArchiveTest, EntriesStartWithTheFolderOnlyWhenKeepingTheParent)
{
    if (QStandardPaths::findExecutable(u"unzip"_s).isEmpty())
        GTEST_SKIP() << "unzip is not installed";
    const QString withParent = root + u"/with.zip"_s;
    const QString without = root + u"/without.zip"_s;
    ASSERT_TRUE(HXArchive::compress(folder, withParent, true));
    ASSERT_TRUE(HXArchive::compress(folder, without, false));

    EXPECT_EQ(unzipListing(withParent),
              (QStringList{"Adobe Logs/", "Adobe Logs/Crash/", "Adobe Logs/Crash/report.txt",
                           "Adobe Logs/Empty/", "Adobe Logs/Premiere 1.log", "Adobe Logs/latest.log"}));
    EXPECT_EQ(unzipListing(without),
              (QStringList{"Crash/", "Crash/report.txt", "Empty/", "Premiere 1.log", "latest.log"}));

    // unzip's own check of every entry, and its size column for the big one.
    const ProcessResult tested = runProcess({u"unzip"_s, u"-t"_s, withParent});
    EXPECT_EQ(tested.exitCode, 0) << tested.out.constData();
    const ProcessResult listed = runProcess({u"unzip"_s, u"-l"_s, without});
    EXPECT_TRUE(listed.out.contains("   100000  ")) << listed.out.constData();

    // A single file is stored under its own name either way.
    const QString single = root + u"/single.zip"_s;
    ASSERT_TRUE(HXArchive::compress(folder + u"/Premiere 1.log"_s, single, false));
    EXPECT_EQ(unzipListing(single), QStringList{"Premiere 1.log"});
}

// A read-only folder still gets its contents.
TEST_F(ArchiveTest, UnpacksWhatItPacked)
{
    ASSERT_TRUE(disk::chmod(folder + u"/Crash"_s, 0555));
    const QString zip = root + u"/logs.zip"_s;
    ASSERT_TRUE(HXArchive::compress(folder, zip, true));
    const QString target = root + u"/out/unpacked"_s;
    ASSERT_TRUE(HXArchive::decompress(zip, target));
    const QString unpacked = target + u"/Adobe Logs"_s;
    EXPECT_EQ(disk::read(unpacked + u"/Premiere 1.log"_s), QByteArray("first log\n"));
    EXPECT_EQ(disk::read(unpacked + u"/Crash/report.txt"_s), QByteArray(100000, 'x'));
    EXPECT_EQ(modeOf(unpacked + u"/Crash"_s), 0555u);
    disk::chmod(unpacked + u"/Crash"_s, 0755);
    disk::chmod(folder + u"/Crash"_s, 0755);
    EXPECT_TRUE(QFileInfo(unpacked + u"/Empty"_s).isDir());
    EXPECT_EQ(QFileInfo(unpacked + u"/latest.log"_s).symLinkTarget(), unpacked + u"/Premiere 1.log"_s);

    EXPECT_FALSE(HXArchive::decompress(root + u"/missing.zip"_s, root + u"/none"_s));
    EXPECT_FALSE(HXArchive::compress(root + u"/missing"_s, root + u"/missing.zip"_s, true));
    EXPECT_FALSE(QFileInfo::exists(root + u"/missing.zip"_s));
}

TEST_F(ArchiveTest, EntriesEscapingTheDestinationOrGoingThroughItsLinksAreRefused)
{
    const QString zip = root + u"/evil.zip"_s;
    writeZip(zip, {{"../outside.txt", AE_IFREG, 0644, "evil"},
                   {"/tmp/absolute-mendwell.txt", AE_IFREG, 0644, "evil"},
                   {"up", AE_IFLNK, 0644, ".."},
                   {"up/through-link.txt", AE_IFREG, 0644, "evil"},
                   {"fine.txt", AE_IFREG, 0644, "evil"}});

    const QString target = root + u"/target"_s;
    EXPECT_FALSE(HXArchive::decompress(zip, target));
    EXPECT_FALSE(QFileInfo::exists(root + u"/outside.txt"_s));
    EXPECT_FALSE(QFileInfo::exists(root + u"/through-link.txt"_s));
    EXPECT_FALSE(QFileInfo::exists(u"/tmp/absolute-mendwell.txt"_s));
    EXPECT_EQ(disk::read(target + u"/fine.txt"_s), QByteArray("evil"));

    // Nor through a link the archive itself holds.
    const QString elsewhere = root + u"/elsewhere"_s;
    ASSERT_TRUE(QDir().mkpath(elsewhere));
    ASSERT_TRUE(disk::chmod(elsewhere, 0755));
    const QByteArray away = QFile::encodeName(elsewhere);
    const QString links = root + u"/links.zip"_s;
    writeZip(links, {{"dir", AE_IFLNK, 0777, away.constData()},
                     {"dir/x", AE_IFREG, 0644, "evil"},
                     {"dir/deeper/y", AE_IFREG, 0644, "evil"},
                     {"dir/", AE_IFDIR, 0777},
                     {"fine.txt", AE_IFREG, 0644, "fine"}});

    const QString linked = root + u"/linked"_s;
    EXPECT_FALSE(HXArchive::decompress(links, linked));
    EXPECT_TRUE(QDir(elsewhere).isEmpty());
    EXPECT_EQ(modeOf(elsewhere), 0755u);
    EXPECT_EQ(QFileInfo(linked + u"/dir"_s).symLinkTarget(), elsewhere);
    EXPECT_EQ(disk::read(linked + u"/fine.txt"_s), QByteArray("fine"));
}

TEST_F(ArchiveTest, NeitherDirectionWritesThroughALinkInTheWay)
{
    // A link planted where the archive goes is not written through.
    write(u"victim.txt"_s, "keep me");
    ASSERT_TRUE(QFile::link(root + u"/victim.txt"_s, root + u"/planted.zip"_s));
    EXPECT_FALSE(HXArchive::compress(folder, root + u"/planted.zip"_s, true));
    EXPECT_EQ(disk::read(root + u"/victim.txt"_s), QByteArray("keep me"));
    EXPECT_TRUE(QFileInfo(root + u"/planted.zip"_s).isSymLink());

    // A folder the destination holds as a link is not entered when unpacking.
    const QString zip = root + u"/logs.zip"_s;
    ASSERT_TRUE(HXArchive::compress(folder, zip, true));
    const QString target = root + u"/target"_s;
    QDir().mkpath(root + u"/elsewhere"_s);
    QDir().mkpath(target);
    ASSERT_TRUE(QFile::link(root + u"/elsewhere"_s, target + u"/Adobe Logs"_s));
    EXPECT_FALSE(HXArchive::decompress(zip, target));
    EXPECT_TRUE(QDir(root + u"/elsewhere"_s).isEmpty());
}

TEST_F(ArchiveTest, ModesAndTimesComeAfterTheContentsAndSetIdBitsNever)
{
    const QString zip = root + u"/modes.zip"_s;
    writeZip(zip, {{"locked/", AE_IFDIR, 0555},
                   {"locked/inner/", AE_IFDIR, 0555},
                   {"locked/inner/log.txt", AE_IFREG, 0644, "log"},
                   // Folders that cannot even be searched, before and after their sub-folders.
                   {"early/", AE_IFDIR, 0600},
                   {"early/sub/", AE_IFDIR, 0500},
                   {"late/sub/", AE_IFDIR, 0500},
                   {"late/", AE_IFDIR, 0600},
                   {"tool", AE_IFREG, 06755, "#!/bin/sh\n"}});

    // A plain user's unpacking, where a folder locked too early keeps its contents out.
    ASSERT_TRUE(disk::chmod(root, 0755));
    const QString plain = root + u"/plain"_s;
    ASSERT_TRUE(QDir().mkpath(plain));
    if (::geteuid() == 0) {
        ASSERT_TRUE(disk::chown(plain, kPlainUser, kPlainUser));
    }
    const QString target = plain + u"/out"_s;
    EXPECT_TRUE(asPlainUser([&] { return HXArchive::decompress(zip, target); }));
    EXPECT_EQ(disk::read(target + u"/locked/inner/log.txt"_s), QByteArray("log"));
    EXPECT_EQ(modeOf(target + u"/locked"_s), 0555u);
    EXPECT_EQ(disk::info(target + u"/locked"_s).st_mtime, kArchived);
    for (const char *folder : {"/early", "/late"}) {
        const QString outer = target + QLatin1String(folder);
        EXPECT_EQ(modeOf(outer), 0600u);
        disk::chmod(outer, 0755);  // to look inside as a plain user too
        EXPECT_EQ(modeOf(outer + u"/sub"_s), 0500u);
    }
    EXPECT_EQ(modeOf(target + u"/tool"_s), 0755u);
    for (const char *folder : {"/locked", "/locked/inner", "/early", "/early/sub", "/late", "/late/sub"})
        disk::chmod(target + QLatin1String(folder), 0755);

    // Root's own unpacking: a set-id bit on a file root made would be root's identity.
    const QString asRoot = root + u"/root-out"_s;
    EXPECT_TRUE(HXArchive::decompress(zip, asRoot));
    EXPECT_EQ(modeOf(asRoot + u"/tool"_s), 0755u);
    EXPECT_EQ(disk::info(asRoot + u"/locked"_s).st_mtime, kArchived);
    for (const char *folder : {"/locked", "/locked/inner", "/early", "/early/sub", "/late", "/late/sub"})
        disk::chmod(asRoot + QLatin1String(folder), 0755);
}

}  // namespace
