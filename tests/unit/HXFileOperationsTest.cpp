// The file operations that succeed as the current user (the failures, which log
// and go on to administrator rights, run in the sandbox: FileOperationsTest).

#include "fs/HXFileOperations.h"
#include "tests/support/TestFiles.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <sys/stat.h>

using namespace std::chrono_literals;
namespace fm = HXFileManager;

namespace {

class FileOperationsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        root = m_dir.path();
    }

    QString path(const QString &relative) const { return root + QLatin1Char('/') + relative; }

    QString write(const QString &relative, const QByteArray &contents = "x") const
    {
        EXPECT_TRUE(disk::write(path(relative), contents));
        return path(relative);
    }

    QTemporaryDir m_dir;
    QString root;
};

TEST_F(FileOperationsTest, FoldersOfFoldersAndFinderFilesCountAsEmpty)
{
    write(QStringLiteral("a/sub/.DS_Store"));
    write(QStringLiteral("a/Icon\r"));
    write(QStringLiteral("a/sub/deeper/Icon\r"));
    EXPECT_TRUE(fm::isFolderEmpty(path(QStringLiteral("a"))));
    EXPECT_TRUE(fm::isFolderEmpty(path(QStringLiteral("missing"))));
    EXPECT_TRUE(fm::isFolderEmpty(write(QStringLiteral("plain-file"))));

    write(QStringLiteral("b/target-holder/file"));
    QDir().mkpath(path(QStringLiteral("c")));
    ASSERT_TRUE(QFile::link(path(QStringLiteral("b/target-holder/file")), path(QStringLiteral("c/link"))));
    EXPECT_FALSE(fm::isFolderEmpty(path(QStringLiteral("c"))));
    EXPECT_FALSE(fm::isFolderEmpty(path(QStringLiteral("b"))));
    write(QStringLiteral("d/.DS_Store"));
    write(QStringLiteral("d/notes.txt"));
    EXPECT_FALSE(fm::isFolderEmpty(path(QStringLiteral("d"))));

    EXPECT_TRUE(fm::removeFolderIfEmpty(path(QStringLiteral("a"))));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("a"))));
    EXPECT_FALSE(fm::removeFolderIfEmpty(path(QStringLiteral("d"))));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("d/notes.txt"))));
}

TEST_F(FileOperationsTest, RemovalTakesLinksNotWhatTheyPointTo)
{
    const QString outside = write(QStringLiteral("outside/keep.txt"), "keep");
    write(QStringLiteral("tree/sub/file.txt"));
    ASSERT_TRUE(QFile::link(path(QStringLiteral("outside")), path(QStringLiteral("tree/sub/folder-link"))));
    ASSERT_TRUE(QFile::link(outside, path(QStringLiteral("tree/file-link"))));
    EXPECT_TRUE(fm::removeFile(path(QStringLiteral("tree")), false));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("tree"))));
    EXPECT_EQ(disk::read(outside), QByteArray("keep"));
    EXPECT_TRUE(fm::removeFile(outside, 1s));
    EXPECT_FALSE(QFileInfo::exists(outside));
}

TEST_F(FileOperationsTest, FoldersAreCreatedWithTheirParentsExceptOnMissingVolumes)
{
    const QString nested = path(QStringLiteral("one/two/three"));
    EXPECT_TRUE(fm::createDirectory(nested, false));
    EXPECT_TRUE(QFileInfo(nested).isDir());
    EXPECT_TRUE(fm::createDirectory(nested, 0s));
    EXPECT_FALSE(fm::createDirectory(QStringLiteral("/Volumes/Mendwell Missing Volume/Folder"), true));
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/Volumes/Mendwell Missing Volume")));

    // The source's own path is rebuilt below the destination.
    const QString source = write(QStringLiteral("src/Prefs/file.plist"));
    const QString mirrored = fm::createDirectoryStructure(source, path(QStringLiteral("mirror")));
    EXPECT_EQ(mirrored, path(QStringLiteral("mirror")) + QFileInfo(source).path());
    EXPECT_TRUE(QFileInfo(mirrored).isDir());
    QDir().mkpath(path(QStringLiteral("src/Thing.app/Contents")));
    EXPECT_EQ(fm::createDirectoryStructure(path(QStringLiteral("src/Thing.app")), path(QStringLiteral("m2"))),
              path(QStringLiteral("m2")) + path(QStringLiteral("src")));
}

TEST_F(FileOperationsTest, CopiesKeepLinksAndPermissions)
{
    const QString script = write(QStringLiteral("src/bin/run.sh"), "#!/bin/sh\n");
    ASSERT_TRUE(disk::chmod(script, 0750));
    write(QStringLiteral("src/data.txt"), "data");
    ASSERT_TRUE(QFile::link(QStringLiteral("run.sh"), path(QStringLiteral("src/bin/latest"))));
    EXPECT_TRUE(fm::copyFile(path(QStringLiteral("src")), path(QStringLiteral("dst")), 5s));
    EXPECT_EQ(disk::read(path(QStringLiteral("dst/bin/run.sh"))), QByteArray("#!/bin/sh\n"));
    EXPECT_EQ(QFileInfo(path(QStringLiteral("dst/bin/run.sh"))).permissions(),
              QFileInfo(script).permissions());
    EXPECT_EQ(QFileInfo(path(QStringLiteral("dst/bin/latest"))).symLinkTarget(),
              path(QStringLiteral("dst/bin/run.sh")));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("src/data.txt"))));

    QDir().mkpath(path(QStringLiteral("into")));
    EXPECT_TRUE(fm::copyContentsOfDirectory(path(QStringLiteral("src")), path(QStringLiteral("into")), 1s));
    EXPECT_EQ(disk::read(path(QStringLiteral("into/data.txt"))), QByteArray("data"));
    EXPECT_TRUE(
        fm::copyContentsOfDirectory(path(QStringLiteral("missing")), path(QStringLiteral("into")), 1s));
}

TEST_F(FileOperationsTest, MovesRenameAndChangeLetterCaseThroughAFreeName)
{
    const QString source = write(QStringLiteral("abc"), "abc");
    const QString upper = path(QStringLiteral("ABC"));
    EXPECT_TRUE(fm::moveFile(source, upper, false));
    EXPECT_EQ(disk::read(upper), QByteArray("abc"));
    EXPECT_FALSE(QFileInfo::exists(source));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("ABC 2"))));
    EXPECT_TRUE(fm::moveFile(upper, source, 2s));
    EXPECT_EQ(disk::read(source), QByteArray("abc"));

    write(QStringLiteral("folder/inner.txt"), "inner");
    QDir().mkpath(path(QStringLiteral("moved")));
    EXPECT_TRUE(fm::moveFile(path(QStringLiteral("folder")), path(QStringLiteral("moved/folder")), 2s));
    EXPECT_EQ(disk::read(path(QStringLiteral("moved/folder/inner.txt"))), QByteArray("inner"));

    const QString empty = path(QStringLiteral("moved/empty"));
    EXPECT_TRUE(fm::createEmptyFile(empty));
    EXPECT_TRUE(QFileInfo(empty).isFile());
    EXPECT_EQ(QFileInfo(empty).size(), 0);
}

TEST_F(FileOperationsTest, ArchivesAndReferences)
{
    write(QStringLiteral("Logs/one.log"), "one");
    const QString zip = path(QStringLiteral("Logs.zip"));
    EXPECT_TRUE(fm::compressFile(path(QStringLiteral("Logs")), zip));
    EXPECT_TRUE(fm::decompressFile(zip, path(QStringLiteral("out"))));
    EXPECT_EQ(disk::read(path(QStringLiteral("out/Logs/one.log"))), QByteArray("one"));
    EXPECT_FALSE(fm::decompressFile(path(QStringLiteral("none.zip")), path(QStringLiteral("out2"))));

    const QString file = write(QStringLiteral("ref.txt"));
    const std::optional<fm::HXFSRef> ref = fm::stringToFSRef(file);
    ASSERT_TRUE(ref);
    EXPECT_EQ(fm::stringWithFSRef(*ref), file);
    ASSERT_TRUE(QFile::rename(file, path(QStringLiteral("kept.txt"))));
    EXPECT_TRUE(fm::stringWithFSRef(*ref).isEmpty());
    write(QStringLiteral("ref.txt"));
    EXPECT_TRUE(fm::stringWithFSRef(*ref).isEmpty());
    EXPECT_FALSE(fm::stringToFSRef(path(QStringLiteral("missing"))));

    QDir().mkpath(path(QStringLiteral("Tool.app/Contents")));
    EXPECT_TRUE(fm::isPackageAtPath(path(QStringLiteral("Tool.app"))));
    EXPECT_TRUE(fm::isDirectoryAtPath(path(QStringLiteral("Tool.app"))));
    EXPECT_FALSE(fm::registerApplicationWithLaunchServices(path(QStringLiteral("Tool.app"))));
    write(QStringLiteral("Tool.app/Contents/Info.plist"));
    EXPECT_TRUE(fm::registerApplicationWithLaunchServices(path(QStringLiteral("Tool.app"))));
    EXPECT_FALSE(fm::isPackageAtPath(path(QStringLiteral("Logs"))));
}

}  // namespace
