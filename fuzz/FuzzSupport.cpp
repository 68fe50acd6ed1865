#include "fuzz/FuzzSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace fuzz {

void ensureApplication()
{
    if (QCoreApplication::instance())
        return;
    static int argc = 1;
    static char name[] = "mendwell-fuzz";
    static char *argv[] = {name, nullptr};
    static const auto application = std::make_unique<QCoreApplication>(argc, argv);
}

const QString &privateFolder()
{
    // Never destroyed, so that the removal at exit still has it.
    static const QString *const folder = [] {
        QByteArray pattern = QDir::tempPath().toLocal8Bit() + "/mendwell-fuzz-XXXXXX";
        if (!mkdtemp(pattern.data()))
            failed("mkdtemp", __FILE__, __LINE__);
        std::atexit([] { QDir(privateFolder()).removeRecursively(); });
        return new QString(QString::fromLocal8Bit(pattern));
    }();
    return *folder;
}

QString writeFile(const QString &relativePath, const std::uint8_t *data, std::size_t size)
{
    const QString path = privateFolder() + QLatin1Char('/') + relativePath;
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(reinterpret_cast<const char *>(data), static_cast<qint64>(size)) !=
            static_cast<qint64>(size))
        failed("writing the input file", __FILE__, __LINE__);
    return path;
}

void failed(const char *what, const char *file, int line)
{
    std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
    std::abort();
}

}  // namespace fuzz
