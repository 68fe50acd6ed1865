#include "fs/HXDigests.h"
#include "fs/HXFileAttributes.h"
#include "fs/HXFileNames.h"
#include "fs/HXFinderLabels.h"
#include "platform/ExtendedAttributes.h"
#include "platform/FileFlags.h"
#include "tests/support/TestFiles.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace HXFileManager;
using namespace Qt::Literals::StringLiterals;

namespace {

// A temporary folder; MENDWELL_TEST_FS_DIR puts it on another file system (the
// volume tests run these cases again on a fresh ext4 volume).
class TempFolder {
public:
    TempFolder()
        : m_dir(qEnvironmentVariableIsSet("MENDWELL_TEST_FS_DIR")
                    ? qEnvironmentVariable("MENDWELL_TEST_FS_DIR") + u"/attrXXXXXX"_s
                    : QDir::tempPath() + u"/attrXXXXXX"_s)
    {
    }
    QString path(const QString &relative = QString()) const
    {
        return relative.isEmpty() ? m_dir.path() : m_dir.path() + QLatin1Char('/') + relative;
    }
    void write(const QString &relative, const QByteArray &contents) const
    {
        ASSERT_TRUE(disk::write(path(relative), contents));
    }
    bool isValid() const { return m_dir.isValid(); }

private:
    QTemporaryDir m_dir;
};

QByteArray encoded(const QString &path)
{
    return QFile::encodeName(path);
}

}  // namespace

TEST(FileSizeDisplay, UsesBinaryUnitsUpToGigabytes)
{
    EXPECT_EQ(formatFileSize(0), u"0 B"_s);
    EXPECT_EQ(formatFileSize(1023), u"1023 B"_s);
    EXPECT_EQ(formatFileSize(1024), u"1.00 KB"_s);
    EXPECT_EQ(formatFileSize(1536), u"1.50 KB"_s);
    EXPECT_EQ(formatFileSize(1048575), u"1024.00 KB"_s);
    EXPECT_EQ(formatFileSize(1048576), u"1.00 MB"_s);
    EXPECT_EQ(formatFileSize(5.0 * 1073741824), u"5.00 GB"_s);
    EXPECT_EQ(formatFileSize(1125899906842624.0), u"1048576.00 GB"_s);
}

TEST(FileSize, SumsFilesBelowFoldersIncludingHiddenOnes)
{
    TempFolder dir;
    ASSERT_TRUE(dir.isValid());
    dir.write(u"tree/a.bin"_s, QByteArray(1000, 'a'));
    dir.write(u"tree/.hidden"_s, QByteArray(24, 'h'));
    dir.write(u"tree/sub/deeper/b.bin"_s, QByteArray(3000, 'b'));
    QDir().mkpath(dir.path(u"tree/empty"_s));

    EXPECT_EQ(fileSize(dir.path(u"tree/a.bin"_s)), 1000u);
    EXPECT_EQ(fileSize(dir.path(u"tree"_s)), 4024u);
    EXPECT_EQ(fileSize(dir.path(u"tree/empty"_s)), 0u);
    EXPECT_EQ(fileSize(dir.path(u"missing"_s)), 0u);

    // A link to a folder is followed; a link to a file counts as the link itself.
    ASSERT_EQ(::symlink(encoded(dir.path(u"tree/sub"_s)), encoded(dir.path(u"sublink"_s))), 0);
    EXPECT_EQ(fileSize(dir.path(u"sublink"_s)), 3000u);
    const QByteArray target = encoded(dir.path(u"tree/a.bin"_s));
    ASSERT_EQ(::symlink(target, encoded(dir.path(u"filelink"_s))), 0);
    EXPECT_EQ(fileSize(dir.path(u"filelink"_s)), static_cast<std::uint64_t>(target.size()));

    // A link back up the tree adds nothing instead of recursing for ever.
    ASSERT_EQ(::symlink(encoded(dir.path(u"tree"_s)), encoded(dir.path(u"tree/sub/loop"_s))), 0);
    EXPECT_EQ(fileSize(dir.path(u"tree"_s)), 4024u);
}

TEST(Locks, LockAndUnlockFilesAndFolderContents)
{
    TempFolder dir;
    ASSERT_TRUE(dir.isValid());
    dir.write(u"probe"_s, "x");
    if (const int error = platform::setImmutable(dir.path(u"probe"_s), true))
        GTEST_SKIP() << "the locked flag cannot be set here: " << qt_error_string(error).toStdString();
    ASSERT_EQ(platform::setImmutable(dir.path(u"probe"_s), false), 0);

    dir.write(u"file.txt"_s, "data");
    EXPECT_FALSE(isFileLocked(dir.path(u"file.txt"_s)));
    lockFile(dir.path(u"file.txt"_s));
    EXPECT_TRUE(isFileLocked(dir.path(u"file.txt"_s)));
    EXPECT_FALSE(QFile::remove(dir.path(u"file.txt"_s)));
    lockFile(dir.path(u"file.txt"_s));  // already locked: nothing changes
    unlockFile(dir.path(u"file.txt"_s));
    EXPECT_FALSE(isFileLocked(dir.path(u"file.txt"_s)));
    unlockFile(dir.path(u"file.txt"_s));
    EXPECT_FALSE(isFileLocked(dir.path(u"missing"_s)));
    unlockFile(dir.path(u"missing"_s));  // logged, not thrown

    dir.write(u"folder/a"_s, "a");
    dir.write(u"folder/sub/b"_s, "b");
    dir.write(u"outside"_s, "o");
    ASSERT_EQ(::symlink(encoded(dir.path(u"outside"_s)), encoded(dir.path(u"folder/link"_s))), 0);
    lockFolder(dir.path(u"folder"_s));
    EXPECT_TRUE(isFileLocked(dir.path(u"folder/a"_s)));
    EXPECT_TRUE(isFileLocked(dir.path(u"folder/sub/b"_s)));
    EXPECT_FALSE(isFileLocked(dir.path(u"folder"_s)));
    EXPECT_FALSE(isFileLocked(dir.path(u"folder/sub"_s)));
    EXPECT_FALSE(isFileLocked(dir.path(u"outside"_s))) << "a link inside the folder was followed";

    lockFile(dir.path(u"outside"_s));
    unlockFolder(dir.path(u"folder"_s));
    EXPECT_FALSE(isFileLocked(dir.path(u"folder/a"_s)));
    EXPECT_FALSE(isFileLocked(dir.path(u"folder/sub/b"_s)));
    EXPECT_TRUE(isFileLocked(dir.path(u"outside"_s))) << "a link inside the folder was followed";
    unlockFile(dir.path(u"outside"_s));

    // A locked folder keeps its entries.
    lockFile(dir.path(u"folder"_s));
    EXPECT_TRUE(isFileLocked(dir.path(u"folder"_s)));
    EXPECT_FALSE(QFile::remove(dir.path(u"folder/a"_s)));
    unlockFile(dir.path(u"folder"_s));
    EXPECT_TRUE(QFile::remove(dir.path(u"folder/a"_s)));
}

TEST(Permissions, SetsTheBitsAndSurvivesMissingFiles)
{
    TempFolder dir;
    ASSERT_TRUE(dir.isValid());
    dir.write(u"f"_s, "x");
    setPosixPermissions(0640, dir.path(u"f"_s));
    EXPECT_EQ(disk::info(dir.path(u"f"_s)).st_mode & 07777, 0640u);
    setPosixPermissions(04755, dir.path(u"f"_s));
    EXPECT_EQ(disk::info(dir.path(u"f"_s)).st_mode & 07777, 04755u);
    setPosixPermissions(0600, dir.path(u"missing"_s));
}

TEST(Metadata, RoundTripsTextAndReportsMissingAttributesOnTheConsole)
{
    TempFolder dir;
    ASSERT_TRUE(dir.isValid());
    dir.write(u"f"_s, "x");
    const QString file = dir.path(u"f"_s);
    if (!setMetadataValue(u"probe"_s, u"com.lanternfish.probe"_s, file))
        GTEST_SKIP() << "no user extended attributes on this file system";

    const QString text = u"Grün – 緑"_s;
    EXPECT_TRUE(setMetadataValue(text, u"com.lanternfish.colour"_s, file));
    EXPECT_EQ(metadataValueForKey(u"com.lanternfish.colour"_s, file), text);
    // Stored without a terminating zero, in the user namespace.
    char raw[64] = {};
    EXPECT_EQ(::getxattr(encoded(file), "user.com.lanternfish.colour", raw, sizeof raw),
              text.toUtf8().size());

    testing::internal::CaptureStderr();
    EXPECT_EQ(metadataValueForKey(u"com.lanternfish.none"_s, file), std::nullopt);
    const std::string console = testing::internal::GetCapturedStderr();
    EXPECT_NE(console.find("buffer val: -1"), std::string::npos) << console;
    EXPECT_NE(console.find("Error retrieving file attribute: " + std::to_string(ENODATA)), std::string::npos)
        << console;

    testing::internal::CaptureStderr();
    EXPECT_TRUE(setMetadataValue(QString(), u"com.lanternfish.empty"_s, file));
    EXPECT_EQ(metadataValueForKey(u"com.lanternfish.empty"_s, file), std::nullopt);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("buffer val: 0"), std::string::npos);

    // Values longer than the fixed read limit are not read.
    EXPECT_TRUE(setMetadataValue(QString(255, QLatin1Char('v')), u"com.lanternfish.max"_s, file));
    EXPECT_EQ(metadataValueForKey(u"com.lanternfish.max"_s, file), QString(255, QLatin1Char('v')));
    EXPECT_TRUE(setMetadataValue(QString(256, QLatin1Char('v')), u"com.lanternfish.long"_s, file));
    EXPECT_EQ(metadataValueForKey(u"com.lanternfish.long"_s, file), std::nullopt);
    EXPECT_FALSE(setMetadataValue(u"x"_s, u"k"_s, dir.path(u"missing"_s)));
}

TEST(FileNames, ValidateRemovesOneLeadingDotBlanksSlashesAndColons)
{
    EXPECT_EQ(validateFilename(u"."_s), u""_s);
    EXPECT_EQ(validateFilename(u".hidden"_s), u"hidden"_s);
    EXPECT_EQ(validateFilename(u"..twice"_s), u".twice"_s);
    EXPECT_EQ(validateFilename(u" .blank first"_s), u".blank first"_s);
    EXPECT_EQ(validateFilename(u"\n\t Report: 2/3 \r\n"_s), u"Report 23"_s);
    EXPECT_EQ(validateFilename(u". x"_s), u"x"_s);
    EXPECT_EQ(validateFilename(u"plain"_s), u"plain"_s);
}

TEST(FileNames, UniqueCountsUpBeforeTheLastExtension)
{
    TempFolder dir;
    ASSERT_TRUE(dir.isValid());
    EXPECT_EQ(uniqueFilename(dir.path(u"Report.txt"_s)), dir.path(u"Report.txt"_s));
    dir.write(u"Report.txt"_s, "");
    EXPECT_EQ(uniqueFilename(dir.path(u"Report.txt"_s)), dir.path(u"Report 2.txt"_s));
    dir.write(u"Report 2.txt"_s, "");
    EXPECT_EQ(uniqueFilename(dir.path(u"Report.txt"_s)), dir.path(u"Report 3.txt"_s));
    QDir().mkpath(dir.path(u"Folder"_s));
    EXPECT_EQ(uniqueFilename(dir.path(u"Folder"_s)), dir.path(u"Folder 2"_s));
    dir.write(u"a.tar.gz"_s, "");
    EXPECT_EQ(uniqueFilename(dir.path(u"a.tar.gz"_s)), dir.path(u"a.tar 2.gz"_s));
    // A dangling link occupies its name too.
    ASSERT_EQ(::symlink("/nonexistent", encoded(dir.path(u"dangling"_s))), 0);
    EXPECT_EQ(uniqueFilename(dir.path(u"dangling"_s)), dir.path(u"dangling 2"_s));
}

TEST(FinderLabels, LabelBitsLiveInTheFinderInformationWord)
{
    TempFolder dir;
    ASSERT_TRUE(dir.isValid());
    dir.write(u"f"_s, "x");
    const QString file = dir.path(u"f"_s);
    if (platform::writeExtendedAttribute(file, u"com.lanternfish.probe"_s, "1") != 0)
        GTEST_SKIP() << "no user extended attributes on this file system";

    EXPECT_EQ(finderColorIndexForPath(file), 0);
    EXPECT_EQ(finderColorForPath(file), std::nullopt);
    EXPECT_EQ(finderColorIndexForPath(dir.path(u"missing"_s)), 0);
    EXPECT_EQ(finderColorIndexForPath(QString()), 0);

    setFinderColorIndex(12, file);
    EXPECT_EQ(finderColorIndexForPath(file), 12);
    EXPECT_EQ(finderColorForPath(file), (HXFinderColor{0.0083, 0.54, 1.0, 1.0}));
    char raw[64] = {};
    ASSERT_EQ(::getxattr(encoded(file), "user.com.apple.FinderInfo", raw, sizeof raw), 32);
    EXPECT_EQ(raw[8], 0);
    EXPECT_EQ(raw[9], 12);

    // Other flag bits are kept and returned unmasked: 0x10C has no colour.
    QByteArray info(32, '\0');
    info[0] = 'T';
    info[8] = 0x01;
    info[9] = 0x0D;
    ASSERT_EQ(platform::writeExtendedAttribute(file, u"com.apple.FinderInfo"_s, info), 0);
    EXPECT_EQ(finderColorIndexForPath(file), 0x10D);
    EXPECT_EQ(finderColorForPath(file), std::nullopt);
    setFinderColorIndex(8 | 1, file);  // bit 0 of the index is not a label bit
    EXPECT_EQ(finderColorIndexForPath(file), 0x109);
    ASSERT_EQ(::getxattr(encoded(file), "user.com.apple.FinderInfo", raw, sizeof raw), 32);
    EXPECT_EQ(raw[0], 'T');

    setFinderColorIndex(12, QString());
    setFinderColorIndex(12, dir.path(u"missing"_s));
    EXPECT_FALSE(QFileInfo::exists(dir.path(u"missing"_s)));
}

TEST(FinderLabels, ColourTablePairsValuesAndIgnoresOthers)
{
    EXPECT_EQ(finderColorForColorIndex(2), (HXFinderColor{0.0, 0.0, 0.72, 1.0}));
    EXPECT_EQ(finderColorForColorIndex(3), finderColorForColorIndex(2));
    EXPECT_EQ(finderColorForColorIndex(5), (HXFinderColor{0.2056, 0.5, 0.85, 1.0}));
    EXPECT_EQ(finderColorForColorIndex(6), (HXFinderColor{0.7917, 0.26, 0.86, 1.0}));
    EXPECT_EQ(finderColorForColorIndex(9), (HXFinderColor{0.5789, 0.56, 0.98, 1.0}));
    EXPECT_EQ(finderColorForColorIndex(10), (HXFinderColor{0.1388, 0.54, 0.95, 1.0}));
    EXPECT_EQ(finderColorForColorIndex(15), (HXFinderColor{0.0888, 0.52, 0.98, 1.0}));
    EXPECT_EQ(finderColorForColorIndex(0), std::nullopt);
    EXPECT_EQ(finderColorForColorIndex(1), std::nullopt);
    EXPECT_EQ(finderColorForColorIndex(16), std::nullopt);
    EXPECT_EQ(finderColorForColorIndex(0x10C), std::nullopt);
}

TEST(Digests, FinishOpenSslContextsAsLowerCaseHex)
{
    EVP_MD_CTX *md5 = EVP_MD_CTX_new();
    ASSERT_EQ(EVP_DigestInit_ex(md5, EVP_md5(), nullptr), 1);
    EVP_DigestUpdate(md5, "a", 1);
    EVP_DigestUpdate(md5, "bc", 2);
    EXPECT_EQ(md5HashWithContext(md5), u"900150983cd24fb0d6963f7d28e17f72"_s);
    EVP_MD_CTX_free(md5);

    EVP_MD_CTX *sha1 = EVP_MD_CTX_new();
    ASSERT_EQ(EVP_DigestInit_ex(sha1, EVP_sha1(), nullptr), 1);
    EVP_DigestUpdate(sha1, "abc", 3);
    EXPECT_EQ(sha1HashWithContext(sha1), u"a9993e364706816aba3e25717850c26c9cd0d89d"_s);
    EVP_MD_CTX_free(sha1);

    EXPECT_EQ(md5HashWithContext(nullptr), QString());
}
