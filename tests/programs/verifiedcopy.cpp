// Runs one verified copy and prints what its delegate heard, so tests can run it
// where they need a process of its own (a small file system, an injected fault).
//   verifiedcopy TYPE SOURCE DESTINATION...
// Prints "written N", "failed PATH CHECKSUM", "finished", "source CHECKSUM",
// "destinations A,B" and "result YES|NO"; exits 0 for YES.
//
// With HXTEST_CORRUPT_READS=PATH, every positioned read of PATH at offset 0
// returns its first byte inverted: a fault of the storage below the copy that
// only the read-back sees.

// Fortified headers make pread an inline wrapper this program could not replace.
#undef _FORTIFY_SOURCE

#include "fs/HXVerifiedCopy.h"

#include <QByteArray>
#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool isCorruptedFile(int fd)
{
    const char *target = std::getenv("HXTEST_CORRUPT_READS");
    if (target == nullptr)
        return false;
    char path[4096];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(fd);
    const ssize_t length = ::readlink(link.constData(), path, sizeof path - 1);
    return length > 0 && std::strncmp(path, target, static_cast<size_t>(length)) == 0 &&
           target[length] == '\0';
}

ssize_t faultyPread(int fd, void *buffer, size_t count, off_t offset)
{
    const ssize_t result = static_cast<ssize_t>(::syscall(SYS_pread64, fd, buffer, count, offset));
    if (result > 0 && offset == 0 && isCorruptedFile(fd))
        static_cast<unsigned char *>(buffer)[0] ^= 0xFF;
    return result;
}

}  // namespace

// Take the place of the C library's positioned reads for the whole program.
extern "C" ssize_t pread64(int fd, void *buffer, size_t count, off_t offset)
{
    return faultyPread(fd, buffer, count, offset);
}
extern "C" ssize_t pread(int fd, void *buffer, size_t count, off_t offset)
{
    return faultyPread(fd, buffer, count, offset);
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.size() < 3)
        return 2;
    HXFileManager::HXFileCopyDelegate delegate;
    delegate.fileCopyBytesWritten = [](std::uint64_t total, QVariantMap &) {
        std::printf("written %llu\n", static_cast<unsigned long long>(total));
    };
    delegate.fileCopyVerificationFailed = [](QVariantMap &settings, const QString &file) {
        std::printf("failed %s %s\n", qPrintable(file),
                    qPrintable(settings.value("destChecksum").toString()));
    };
    QVariantMap last;
    delegate.fileCopyFinished = [&](QVariantMap &settings) {
        std::printf("finished\n");
        last = settings;
    };
    const bool result = HXFileManager::copyFileWithProgress(args[1], args.mid(2), args[0].toInt(), &delegate);
    std::printf(
        "source %s\ndestinations %s\nresult %s\n", qPrintable(last.value("sourceChecksum").toString()),
        qPrintable(last.value("destChecksums").toStringList().join(QLatin1Char(','))), result ? "YES" : "NO");
    return result ? 0 : 1;
}
