#include "fs/HXVolumes.h"
#include "platform/Volumes.h"
#include "tests/support/Process.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <unistd.h>

using namespace HXFileManager;
using namespace Qt::Literals::StringLiterals;

namespace {

// Set in the copy of this program that runs inside a private mount namespace
// with fresh volumes mounted below it.
const char *const kMountsVariable = "MENDWELL_TEST_MOUNTS";

QString mounts(const QString &relative = QString())
{
    const QString root = qEnvironmentVariable(kMountsVariable);
    return relative.isEmpty() ? root : root + QLatin1Char('/') + relative;
}

}  // namespace

TEST(Volumes, StartupVolumePathsCountAsMounted)
{
    EXPECT_TRUE(isVolumeMountedForPath(u"/Users/anna/Library"_s));
    EXPECT_TRUE(isVolumeMountedForPath(u"/Volumes"_s));
    EXPECT_TRUE(isVolumeMountedForPath(u"/Volumes/"_s));
    EXPECT_FALSE(isVolumeMountedForPath(u"/Volumes/No Such Disk/file"_s));
    // "/Volumes" without a slash is enough for the volume rule...
    EXPECT_FALSE(isVolumeMountedForPath(u"/VolumesX/a/b"_s));
    // ...but the drive rule wants "/Volumes/".
    EXPECT_TRUE(isDriveMountedForPath(u"/VolumesX/a/b"_s));
    EXPECT_TRUE(isDriveMountedForPath(u"/tmp/a/b"_s));

    testing::internal::CaptureStderr();
    EXPECT_FALSE(isDriveMountedForPath(u"/Volumes/No Such Disk/file"_s));
    const std::string console = testing::internal::GetCapturedStderr();
    EXPECT_NE(console.find("mountpoint: //Volumes/No Such Disk\n"), std::string::npos) << console;

    EXPECT_EQ(volumeMountPointForPath(u"/Volumes/No Such Disk/file"_s), std::nullopt);
    EXPECT_EQ(infoForDiskAtMountpoint(u"/no/such/mount/point"_s), std::nullopt);
}

TEST(Volumes, RootFileSystemInformation)
{
    const std::optional<QVariantMap> info = infoForDiskAtMountpoint(u"/"_s);
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->value(u"MountPoint"_s).toString(), u"/"_s);
    EXPECT_FALSE(info->value(u"FilesystemType"_s).toString().isEmpty());
    EXPECT_GT(info->value(u"TotalSize"_s).toLongLong(), 0);
    EXPECT_LE(info->value(u"FreeSpace"_s).toLongLong(), info->value(u"TotalSize"_s).toLongLong());
}

// Two fresh ext4 volumes named Data and Data2 and a read-only view of Data,
// mounted in a private mount namespace that ends with the run. The attribute
// tests run there again, so the locked flag is tried on a file system that has it.
TEST(Volumes, FreshVolumesInAPrivateMountNamespace)
{
    if (qEnvironmentVariableIsSet(kMountsVariable))
        GTEST_SKIP() << "inside the namespace";
    if (::getuid() != 0)
        GTEST_SKIP() << "mounting volumes needs root";
    for (const char *tool : {"unshare", "mkfs.ext4", "mount"}) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
            GTEST_SKIP() << tool << " is not installed";
    }
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    for (const QString &name : {u"Data"_s, u"Data2"_s}) {
        const QString image = dir.filePath(name + u".img"_s);
        QFile file(image);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_TRUE(file.resize(16 * 1024 * 1024));
        file.close();
        const ProcessResult made = runProcess({u"mkfs.ext4"_s, u"-q"_s, u"-F"_s, u"-L"_s, name, image});
        ASSERT_EQ(made.exitCode, 0) << made.err.toStdString();
    }

    const QString attributesTest = QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).symLinkTarget())
                                       .dir()
                                       .filePath(u"HXFileAttributesTest"_s);
    const QString script = uR"(set -e
root="$1"; self="$2"; attributes="$3"
mount --make-rprivate /
mkdir -p "$root/Data" "$root/Data2" "$root/ReadOnly"
if ! mount -o loop "$root/Data.img" "$root/Data" 2>/dev/null; then exit 77; fi
mount -o loop "$root/Data2.img" "$root/Data2"
mount --bind "$root/Data" "$root/ReadOnly"
mount -o remount,bind,ro "$root/ReadOnly"
export MENDWELL_TEST_MOUNTS="$root"
"$self" --gtest_filter='VolumesOnFreshMounts.*'
if [ -x "$attributes" ]; then
  MENDWELL_TEST_FS_DIR="$root/Data" "$attributes" --gtest_filter='Locks.*:Metadata.*:FinderLabels.*:FileSize.*'
fi
)"_s;
    const ProcessResult run =
        runProcess({u"unshare"_s, u"--mount"_s, u"sh"_s, u"-c"_s, script, u"sh"_s, dir.path(),
                    QFileInfo(u"/proc/self/exe"_s).symLinkTarget(), attributesTest});
    if (run.exitCode == 77)
        GTEST_SKIP() << "loop devices cannot be mounted here";
    EXPECT_EQ(run.exitCode, 0) << run.out.toStdString() << run.err.toStdString();
    EXPECT_FALSE(run.out.contains("SKIPPED")) << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("[  PASSED  ]")) << run.out.toStdString();
}

TEST(VolumesOnFreshMounts, MountPointsAndDiskInformation)
{
    if (!qEnvironmentVariableIsSet(kMountsVariable))
        GTEST_SKIP() << "runs inside the namespace of FreshVolumesInAPrivateMountNamespace";

    const QStringList volumes = platform::mountedLocalVolumePaths();
    EXPECT_TRUE(volumes.contains(mounts(u"Data"_s))) << volumes.join(u' ').toStdString();
    EXPECT_TRUE(volumes.contains(mounts(u"Data2"_s)));
    EXPECT_EQ(volumes.count(mounts(u"Data2"_s)), 1);

    // Data is a prefix of Data2's name, not of its path plus "/".
    EXPECT_EQ(volumeMountPointForPath(mounts(u"Data2/inner/file"_s)), mounts(u"Data2"_s));
    EXPECT_EQ(volumeMountPointForPath(mounts(u"Data/inner/file"_s)), mounts(u"Data"_s));
    EXPECT_EQ(volumeMountPointForPath(mounts(u"Data"_s)), mounts(u"Data"_s));
    EXPECT_EQ(volumeMountPointForPath(mounts(u"Data3/file"_s)), volumeMountPointForPath(mounts()));
    EXPECT_EQ(volumeMountPointForPath(u"/Volumes/Data2/file"_s), std::nullopt);

    const std::optional<QVariantMap> info = infoForDiskAtMountpoint(mounts(u"Data2/"_s));
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->value(u"MountPoint"_s).toString(), mounts(u"Data2"_s));
    EXPECT_EQ(info->value(u"FilesystemType"_s).toString(), u"ext4"_s);
    EXPECT_TRUE(info->value(u"DeviceNode"_s).toString().startsWith(u"/dev/loop"_s));
    EXPECT_TRUE(info->value(u"DeviceIdentifier"_s).toString().startsWith(u"loop"_s));
    EXPECT_EQ(info->value(u"VolumeName"_s).toString(), u"Data2"_s);
    const qint64 total = info->value(u"TotalSize"_s).toLongLong();
    EXPECT_GT(total, 8 * 1024 * 1024);
    EXPECT_LE(total, 16 * 1024 * 1024);
    EXPECT_GT(info->value(u"FreeSpace"_s).toLongLong(), 0);
    EXPECT_LE(info->value(u"FreeSpace"_s).toLongLong(), total);
    EXPECT_GT(info->value(u"VolumeAllocationBlockSize"_s).toLongLong(), 0);
    EXPECT_TRUE(info->value(u"Writable"_s).toBool());
    EXPECT_TRUE(info->value(u"WritableVolume"_s).toBool());

    const std::optional<QVariantMap> readOnly = infoForDiskAtMountpoint(mounts(u"ReadOnly"_s));
    ASSERT_TRUE(readOnly.has_value());
    EXPECT_FALSE(readOnly->value(u"Writable"_s).toBool());
    EXPECT_FALSE(readOnly->value(u"WritableVolume"_s).toBool());

    // A folder on a volume is not a mount point.
    ASSERT_TRUE(QDir().mkpath(mounts(u"Data/folder"_s)));
    EXPECT_EQ(infoForDiskAtMountpoint(mounts(u"Data/folder"_s)), std::nullopt);
}
