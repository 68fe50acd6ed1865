#include "tests/support/FreshRoot.h"

#include <QDir>
#include <QFileInfo>

QStringList bubblewrapFreshRoot(const QStringList &own)
{
    const QStringList special{QStringLiteral("proc"), QStringLiteral("dev"), QStringLiteral("sys")};
    QStringList args;
    for (const QFileInfo &entry :
         QDir(QStringLiteral("/")).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)) {
        const QString name = entry.fileName();
        if (own.contains(name) || special.contains(name))
            continue;
        const QString path = QLatin1Char('/') + name;
        if (entry.isSymLink())
            args << QStringLiteral("--symlink") << entry.symLinkTarget() << path;
        else
            args << (entry.isDir() ? QStringLiteral("--bind") : QStringLiteral("--ro-bind")) << path << path;
    }
    args << QStringLiteral("--ro-bind") << QStringLiteral("/sys") << QStringLiteral("/sys")
         << QStringLiteral("--proc") << QStringLiteral("/proc") << QStringLiteral("--dev-bind")
         << QStringLiteral("/dev") << QStringLiteral("/dev");
    return args;
}
