#include "fuzz/FuzzSupport.h"

#include "system/HXPrivateFolder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

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
    // Never destroyed by the runtime: removed, with what is inside, at exit.
    static HXPrivateFolder *folder = [] {
        std::optional<HXPrivateFolder> made = HXPrivateFolder::make(QStringLiteral("mendwell-fuzz"));
        if (!made)
            failed("making a private folder", __FILE__, __LINE__);
        std::atexit([] { delete folder; });
        return new HXPrivateFolder(std::move(*made));
    }();
    return folder->path();
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
