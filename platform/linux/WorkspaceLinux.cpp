#include "platform/Workspace.h"

#include <QFileInfo>
#include <QSet>

namespace platform {

bool hasPackageName(const QString &name)
{
    // No package bit exists here: a folder is a package when it carries one of the
    // extensions the Mac declares as packages.
    static const QSet<QString> kPackageExtensions{
        QStringLiteral("app"),       QStringLiteral("bundle"), QStringLiteral("framework"),
        QStringLiteral("plugin"),    QStringLiteral("kext"),   QStringLiteral("pkg"),
        QStringLiteral("mpkg"),      QStringLiteral("rtfd"),   QStringLiteral("component"),
        QStringLiteral("xpc"),       QStringLiteral("appex"),  QStringLiteral("prefpane"),
        QStringLiteral("saver"),     QStringLiteral("wdgt"),   QStringLiteral("qlgenerator"),
        QStringLiteral("mdimporter")};
    const qsizetype dot = name.lastIndexOf(u'.');
    return dot >= 0 && kPackageExtensions.contains(name.mid(dot + 1).toLower());
}

bool isFilePackage(const QString &path)
{
    const QFileInfo info(path);
    return info.isDir() && hasPackageName(info.fileName());
}

int notifyFolderChanged(const QString &path)
{
    // File browsers here watch their folders through inotify; there is nobody to tell.
    return QFileInfo::exists(path) ? 0 : -43;
}

bool registerApplication(const QString &path)
{
    // Applications are found by scanning the Applications folders, so there is no
    // registry to update: the bundle only has to be one.
    return QFileInfo(path + QStringLiteral("/Contents/Info.plist")).isFile();
}

}  // namespace platform
