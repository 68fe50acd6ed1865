#include "fs/HXFileNames.h"

#include "system/HXPath.h"

#include <QFile>

#include <sys/stat.h>

namespace HXFileManager {

QString validateFilename(const QString &name)
{
    if (name == QLatin1String("."))
        return QStringLiteral("");
    QString clean = name;
    if (clean.startsWith(QLatin1Char('.')))
        clean.remove(0, 1);
    clean = clean.trimmed();
    clean.remove(QLatin1Char('/'));
    clean.remove(QLatin1Char(':'));
    return clean;
}

QString uniqueFilename(const QString &path)
{
    // Any entry takes the name, a dangling link included: the caller is about to
    // create something there.
    const auto taken = [](const QString &candidate) {
        struct stat info {};
        return ::lstat(QFile::encodeName(candidate).constData(), &info) == 0;
    };
    if (!taken(path))
        return path;
    const QString extension = HXPath::extension(path);
    const QString stem = HXPath::deletingExtension(path);
    for (unsigned long long n = 2;; ++n) {
        QString candidate = stem + QLatin1Char(' ') + QString::number(n);
        if (!extension.isEmpty())
            candidate += QLatin1Char('.') + extension;
        if (!taken(candidate))
            return candidate;
    }
}

}  // namespace HXFileManager
