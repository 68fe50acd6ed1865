#include "system/HXBundle.h"

#include "platform/Platform.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"
#include "system/PropertyList.h"

#include <QFileInfo>

namespace {

// A bundle in the console user's tree is read with her rights when root looks.
QVariantMap infoOf(const QString &bundlePath)
{
    const HXActingForUser acting(bundlePath);
    return PropertyList::readDictionary(bundlePath + QStringLiteral("/Contents/Info.plist"));
}

}  // namespace

HXBundle::HXBundle(QString bundlePath) : m_path(std::move(bundlePath)), m_info(infoOf(m_path))
{
}

const HXBundle &HXBundle::mainBundle()
{
    static const HXBundle *bundle = [] {
        const QString executable = platform::executablePath();
        auto *main = new HXBundle(bundlePathForExecutable(executable));
        main->m_runningExecutable = executable;
        return main;
    }();
    return *bundle;
}

QString HXBundle::bundlePathForExecutable(const QString &executablePath)
{
    const QString folder = HXPath::deletingLastComponent(executablePath);
    const QString marker = QStringLiteral(".app/Contents/MacOS");
    if (folder.endsWith(marker))
        return folder.left(folder.size() - QStringLiteral("/Contents/MacOS").size());
    return folder;
}

QString HXBundle::bundleIdentifier() const
{
    return m_info.value(QStringLiteral("CFBundleIdentifier")).toString();
}

QString HXBundle::executablePath() const
{
    const QString name = m_info.value(QStringLiteral("CFBundleExecutable")).toString();
    if (name.isEmpty())
        return m_runningExecutable;
    return m_path + QStringLiteral("/Contents/MacOS/") + name;
}

QString HXBundle::resourcePath() const
{
    return m_path + QStringLiteral("/Contents/Resources");
}

QString HXBundle::iconPath() const
{
    const QString name = objectForInfoDictionaryKey(QStringLiteral("CFBundleIconFile")).toString();
    if (name.isEmpty())
        return QString();
    const QString path = HXPath::appendingComponent(resourcePath(), name);
    return QFileInfo(path).isFile() ? path : QString();
}
