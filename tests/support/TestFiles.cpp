#include "tests/support/TestFiles.h"
#include "tests/support/Process.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

bool copyTree(const QString &from, const QString &to)
{
    if (QFileInfo(from).isDir()) {
        if (!QDir().mkpath(to))
            return false;
        for (const QString &name :
             QDir(from).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden))
            if (!copyTree(from + QLatin1Char('/') + name, to + QLatin1Char('/') + name))
                return false;
        return true;
    }
    return QFile::copy(from, to);
}

const QStringList kSampleWrong = {
    QStringLiteral("/Library/Application Support/Adobe/Common/Plugin Registry.txt"),
    QStringLiteral("/Library/Application Support/Adobe/SLStore"),
    QStringLiteral("/Users/anna/Documents/Adobe/Premiere Pro/7.0/Profile-root"),
    QStringLiteral("/Users/anna/Library/Application Support/Adobe/Premiere Pro/7.0/Trace Database.txt"),
};

bool makeSample(const QString &root)
{
    const ProcessResult made = runProcess(
        {QStringLiteral("bash"), QStringLiteral(MENDWELL_SOURCE_DIR "/scripts/make-sample.sh"), root});
    EXPECT_EQ(made.exitCode, 0) << made.err.constData();
    return made.exitCode == 0;
}

namespace disk {

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool write(const QString &path, const QByteArray &contents, int mode)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(contents) != contents.size())
        return false;
    file.close();
    return mode < 0 || chmod(path, static_cast<mode_t>(mode));
}

struct stat info(const QString &path)
{
    struct stat info {};
    ::lstat(QFile::encodeName(path).constData(), &info);
    return info;
}

bool chmod(const QString &path, mode_t mode)
{
    return ::chmod(QFile::encodeName(path).constData(), mode) == 0;
}

bool chown(const QString &path, uid_t owner, gid_t group)
{
    return ::lchown(QFile::encodeName(path).constData(), owner, group) == 0;
}

bool makePath(const QString &path, uid_t owner, gid_t group)
{
    QStringList made;
    for (QString probe = path; !QFileInfo::exists(probe); probe = QFileInfo(probe).path())
        made.prepend(probe);
    if (!QDir().mkpath(path))
        return false;
    for (const QString &folder : made)
        if (!chown(folder, owner, group))
            return false;
    return true;
}

// PATH itself for its flags: never through a link, never waiting on a FIFO.
static int openForFlags(const QString &path)
{
    return ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

int flags(const QString &path)
{
    const int fd = openForFlags(path);
    int flags = -1;
    if (fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0)
        flags = -1;
    if (fd >= 0)
        ::close(fd);
    return flags;
}

bool setLocked(const QString &path, bool locked)
{
    const int fd = openForFlags(path);
    int flags = 0;
    bool done = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = locked ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0)
        ::close(fd);
    return done;
}

QString fingerprint(const QString &path, const QString &relative)
{
    const struct stat item = info(path);
    if (item.st_mode == 0)
        return relative + QStringLiteral(" missing\n");
    QString line = QStringLiteral("%1 mode=%2 uid=%3 gid=%4 links=%5 flags=%6")
                       .arg(relative)
                       .arg(item.st_mode, 0, 8)
                       .arg(item.st_uid)
                       .arg(item.st_gid)
                       .arg(item.st_nlink)
                       .arg(flags(path));
    if (S_ISREG(item.st_mode))
        line += QStringLiteral(" content=") + QString::fromLatin1(read(path).toHex());
    line += QLatin1Char('\n');
    if (S_ISDIR(item.st_mode)) {
        QStringList names =
            QDir(path).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
        names.sort();
        for (const QString &name : names)
            line += fingerprint(path + QLatin1Char('/') + name, relative + QLatin1Char('/') + name);
    }
    return line;
}

}  // namespace disk

bool moveBehindUsersLink(const std::function<QString(const QString &)> &hostPath, const QString &path,
                         const QString &elsewhere, uid_t owner, gid_t group)
{
    return disk::makePath(QFileInfo(hostPath(elsewhere)).path(), owner, group) &&
           std::rename(QFile::encodeName(hostPath(path)).constData(),
                       QFile::encodeName(hostPath(elsewhere)).constData()) == 0 &&
           QFile::link(elsewhere, hostPath(path)) && disk::chown(hostPath(path), owner, group);
}
