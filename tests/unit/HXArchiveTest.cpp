#include "fs/HXArchive.h"

#include "tests/support/Process.h"

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
        folder = root + QStringLiteral("/Adobe Logs");
        write(QStringLiteral("Adobe Logs/Premiere 1.log"), "first log\n");
        write(QStringLiteral("Adobe Logs/Crash/report.txt"), QByteArray(100000, 'x'));
        QDir().mkpath(folder + QStringLiteral("/Empty"));
        ASSERT_TRUE(QFile::link(QStringLiteral("Premiere 1.log"), folder + QStringLiteral("/latest.log")));
    }

    void write(const QString &relative, const QByteArray &contents) const
    {
        const QString path = root + QLatin1Char('/') + relative;
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }

    static QByteArray read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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

    static struct stat lookAt(const QString &path)
    {
        struct stat info {};
        EXPECT_EQ(::lstat(QFile::encodeName(path).constData(), &info), 0) << qPrintable(path);
        return info;
    }

    // The entry names unzip reports, sorted.
    static QStringList unzipListing(const QString &zip)
    {
        const ProcessResult result = runProcess({QStringLiteral("unzip"), QStringLiteral("-Z1"), zip});
        EXPECT_EQ(result.exitCode, 0) << result.err.constData();
        QStringList names = QString::fromUtf8(result.out).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        names.sort();
        return names;
    }

    QTemporaryDir m_dir;
    QString root, folder;
};

TEST_F(ArchiveTest, EntriesStartWithTheFolderOnlyWhenKeepingTheParent)
{
    if (QStandardPaths::findExecutable(QStringLiteral("unzip")).isEmpty())
        GTEST_SKIP() << "unzip is not installed";
    const QString withParent = root + QStringLiteral("/with.zip");
    const QString without = root + QStringLiteral("/without.zip");
    ASSERT_TRUE(HXArchive::compress(folder, withParent, true));
    ASSERT_TRUE(HXArchive::compress(folder, without, false));

    EXPECT_EQ(unzipListing(withParent),
              (QStringList{"Adobe Logs/", "Adobe Logs/Crash/", "Adobe Logs/Crash/report.txt",
                           "Adobe Logs/Empty/", "Adobe Logs/Premiere 1.log", "Adobe Logs/latest.log"}));
    EXPECT_EQ(unzipListing(without),
              (QStringList{"Crash/", "Crash/report.txt", "Empty/", "Premiere 1.log", "latest.log"}));

    // unzip's own check of every entry, and its size column for the big one.
    const ProcessResult tested = runProcess({QStringLiteral("unzip"), QStringLiteral("-t"), withParent});
    EXPECT_EQ(tested.exitCode, 0) << tested.out.constData();
    const ProcessResult listed = runProcess({QStringLiteral("unzip"), QStringLiteral("-l"), without});
    EXPECT_TRUE(listed.out.contains("   100000  ")) << listed.out.constData();

    // A single file is stored under its own name either way.
    const QString single = root + QStringLiteral("/single.zip");
    ASSERT_TRUE(HXArchive::compress(folder + QStringLiteral("/Premiere 1.log"), single, false));
    EXPECT_EQ(unzipListing(single), QStringList{"Premiere 1.log"});
}

TEST_F(ArchiveTest, UnpacksWhatItPacked)
{
    const QString zip = root + QStringLiteral("/logs.zip");
    ASSERT_TRUE(HXArchive::compress(folder, zip, true));
    const QString target = root + QStringLiteral("/out/unpacked");
    ASSERT_TRUE(HXArchive::decompress(zip, target));
    const QString unpacked = target + QStringLiteral("/Adobe Logs");
    EXPECT_EQ(read(unpacked + QStringLiteral("/Premiere 1.log")), QByteArray("first log\n"));
    EXPECT_EQ(read(unpacked + QStringLiteral("/Crash/report.txt")), QByteArray(100000, 'x'));
    EXPECT_TRUE(QFileInfo(unpacked + QStringLiteral("/Empty")).isDir());
    EXPECT_EQ(QFileInfo(unpacked + QStringLiteral("/latest.log")).symLinkTarget(),
              unpacked + QStringLiteral("/Premiere 1.log"));

    EXPECT_FALSE(
        HXArchive::decompress(root + QStringLiteral("/missing.zip"), root + QStringLiteral("/none")));
    EXPECT_FALSE(
        HXArchive::compress(root + QStringLiteral("/missing"), root + QStringLiteral("/missing.zip"), true));
    EXPECT_FALSE(QFileInfo::exists(root + QStringLiteral("/missing.zip")));
}

TEST_F(ArchiveTest, EntriesEscapingTheDestinationAreRefused)
{
    const QString zip = root + QStringLiteral("/evil.zip");
    archive *writer = archive_write_new();
    archive_write_set_format_zip(writer);
    ASSERT_EQ(archive_write_open_filename(writer, QFile::encodeName(zip).constData()), ARCHIVE_OK);
    auto add = [&](const char *name, const char *symlink) {
        archive_entry *entry = archive_entry_new();
        archive_entry_set_pathname(entry, name);
        archive_entry_set_perm(entry, 0644);
        if (symlink) {
            archive_entry_set_filetype(entry, AE_IFLNK);
            archive_entry_set_symlink(entry, symlink);
            archive_write_header(writer, entry);
        } else {
            archive_entry_set_filetype(entry, AE_IFREG);
            archive_entry_set_size(entry, 4);
            archive_write_header(writer, entry);
            archive_write_data(writer, "evil", 4);
        }
        archive_entry_free(entry);
    };
    add("../outside.txt", nullptr);
    add("/tmp/absolute-mendwell.txt", nullptr);
    add("up", "..");
    add("up/through-link.txt", nullptr);
    add("fine.txt", nullptr);
    archive_write_close(writer);
    archive_write_free(writer);

    const QString target = root + QStringLiteral("/target");
    EXPECT_FALSE(HXArchive::decompress(zip, target));
    EXPECT_FALSE(QFileInfo::exists(root + QStringLiteral("/outside.txt")));
    EXPECT_FALSE(QFileInfo::exists(root + QStringLiteral("/through-link.txt")));
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/tmp/absolute-mendwell.txt")));
    EXPECT_EQ(read(target + QStringLiteral("/fine.txt")), QByteArray("evil"));
}

TEST_F(ArchiveTest, NeitherDirectionWritesThroughALinkInTheWay)
{
    // A link planted where the archive goes is not written through.
    write(QStringLiteral("victim.txt"), "keep me");
    ASSERT_TRUE(QFile::link(root + QStringLiteral("/victim.txt"), root + QStringLiteral("/planted.zip")));
    EXPECT_FALSE(HXArchive::compress(folder, root + QStringLiteral("/planted.zip"), true));
    EXPECT_EQ(read(root + QStringLiteral("/victim.txt")), QByteArray("keep me"));
    EXPECT_TRUE(QFileInfo(root + QStringLiteral("/planted.zip")).isSymLink());

    // A folder the destination holds as a link is not entered when unpacking.
    const QString zip = root + QStringLiteral("/logs.zip");
    ASSERT_TRUE(HXArchive::compress(folder, zip, true));
    const QString target = root + QStringLiteral("/target");
    QDir().mkpath(root + QStringLiteral("/elsewhere"));
    QDir().mkpath(target);
    ASSERT_TRUE(QFile::link(root + QStringLiteral("/elsewhere"), target + QStringLiteral("/Adobe Logs")));
    EXPECT_FALSE(HXArchive::decompress(zip, target));
    EXPECT_TRUE(QDir(root + QStringLiteral("/elsewhere")).isEmpty());
}

TEST_F(ArchiveTest, AReadOnlyFolderStillGetsItsContents)
{
    ASSERT_EQ(::chmod(QFile::encodeName(folder + QStringLiteral("/Crash")).constData(), 0555), 0);
    const QString zip = root + QStringLiteral("/logs.zip");
    ASSERT_TRUE(HXArchive::compress(folder, zip, false));
    const QString target = root + QStringLiteral("/out");
    ASSERT_TRUE(HXArchive::decompress(zip, target));
    EXPECT_EQ(read(target + QStringLiteral("/Crash/report.txt")), QByteArray(100000, 'x'));
    EXPECT_EQ(QFileInfo(target + QStringLiteral("/Crash")).permissions() & QFileDevice::WriteOwner, 0);
    ::chmod(QFile::encodeName(target + QStringLiteral("/Crash")).constData(), 0755);
    ::chmod(QFile::encodeName(folder + QStringLiteral("/Crash")).constData(), 0755);
}

TEST_F(ArchiveTest, NoEntryGoesThroughALinkTheArchiveItselfHolds)
{
    const QString elsewhere = root + QStringLiteral("/elsewhere");
    ASSERT_TRUE(QDir().mkpath(elsewhere));
    ASSERT_EQ(::chmod(QFile::encodeName(elsewhere).constData(), 0755), 0);
    const QByteArray away = QFile::encodeName(elsewhere);
    const QString zip = root + QStringLiteral("/links.zip");
    writeZip(zip, {{"dir", AE_IFLNK, 0777, away.constData()},
                   {"dir/x", AE_IFREG, 0644, "evil"},
                   {"dir/deeper/y", AE_IFREG, 0644, "evil"},
                   {"dir/", AE_IFDIR, 0777},
                   {"fine.txt", AE_IFREG, 0644, "fine"}});

    const QString target = root + QStringLiteral("/target");
    EXPECT_FALSE(HXArchive::decompress(zip, target));
    EXPECT_TRUE(QDir(elsewhere).isEmpty());
    EXPECT_EQ(lookAt(elsewhere).st_mode & 07777, 0755u);
    EXPECT_EQ(QFileInfo(target + QStringLiteral("/dir")).symLinkTarget(), elsewhere);
    EXPECT_EQ(read(target + QStringLiteral("/fine.txt")), QByteArray("fine"));
}

TEST_F(ArchiveTest, ModesAndTimesComeAfterTheContentsAndSetIdBitsNever)
{
    const QString zip = root + QStringLiteral("/modes.zip");
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
    ASSERT_EQ(::chmod(QFile::encodeName(root).constData(), 0755), 0);
    const QString plain = root + QStringLiteral("/plain");
    ASSERT_TRUE(QDir().mkpath(plain));
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(QFile::encodeName(plain).constData(), kPlainUser, kPlainUser), 0);
    }
    const QString target = plain + QStringLiteral("/out");
    EXPECT_TRUE(asPlainUser([&] { return HXArchive::decompress(zip, target); }));
    EXPECT_EQ(read(target + QStringLiteral("/locked/inner/log.txt")), QByteArray("log"));
    EXPECT_EQ(lookAt(target + QStringLiteral("/locked")).st_mode & 07777, 0555u);
    EXPECT_EQ(lookAt(target + QStringLiteral("/locked")).st_mtime, kArchived);
    for (const char *folder : {"/early", "/late"}) {
        const QString outer = target + QLatin1String(folder);
        EXPECT_EQ(lookAt(outer).st_mode & 07777, 0600u);
        ::chmod(QFile::encodeName(outer).constData(), 0755);  // to look inside as a plain user too
        EXPECT_EQ(lookAt(outer + QStringLiteral("/sub")).st_mode & 07777, 0500u);
    }
    EXPECT_EQ(lookAt(target + QStringLiteral("/tool")).st_mode & 07777, 0755u);
    for (const char *folder : {"/locked", "/locked/inner", "/early", "/early/sub", "/late", "/late/sub"})
        ::chmod(QFile::encodeName(target + QLatin1String(folder)).constData(), 0755);

    // Root's own unpacking: a set-id bit on a file root made would be root's identity.
    const QString asRoot = root + QStringLiteral("/root-out");
    EXPECT_TRUE(HXArchive::decompress(zip, asRoot));
    EXPECT_EQ(lookAt(asRoot + QStringLiteral("/tool")).st_mode & 07777, 0755u);
    EXPECT_EQ(lookAt(asRoot + QStringLiteral("/locked")).st_mtime, kArchived);
    for (const char *folder : {"/locked", "/locked/inner", "/early", "/early/sub", "/late", "/late/sub"})
        ::chmod(QFile::encodeName(asRoot + QLatin1String(folder)).constData(), 0755);
}

}  // namespace
