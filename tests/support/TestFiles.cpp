#include "tests/support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

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
