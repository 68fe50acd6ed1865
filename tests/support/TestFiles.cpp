#include "tests/support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
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

bool moveBehindUsersLink(const std::function<QString(const QString &)> &hostPath, const QString &path,
                         const QString &elsewhere, uid_t owner, gid_t group)
{
    QStringList made;
    for (QString probe = QFileInfo(hostPath(elsewhere)).path(); !QFileInfo::exists(probe);
         probe = QFileInfo(probe).path())
        made.prepend(probe);
    if (!QDir().mkpath(QFileInfo(hostPath(elsewhere)).path()))
        return false;
    for (const QString &folder : made)
        if (::lchown(QFile::encodeName(folder).constData(), owner, group) != 0)
            return false;
    return std::rename(QFile::encodeName(hostPath(path)).constData(),
                       QFile::encodeName(hostPath(elsewhere)).constData()) == 0 &&
           QFile::link(elsewhere, hostPath(path)) &&
           ::lchown(QFile::encodeName(hostPath(path)).constData(), owner, group) == 0;
}
