#include "app/HXPremiereFiles.h"

#include "app/HXMediaCache.h"

#include "fs/HXWildcardPaths.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"
#include "system/HXWorkspace.h"
#include "system/PropertyList.h"

namespace {

constexpr bool kUserDomain = true;
constexpr bool kLocalDomain = false;

QStringList expanded(const QString &base, const QString &pattern)
{
    return HXFileManager::filesMatchingWildcardPath(pattern, base);
}

}  // namespace

namespace HXPremiereFiles {

QStringList preferencePaths()
{
    // Adobe's own spelling: "com.Adobe" for Premiere Pro and Common, "com.adobe"
    // for CSXS and the crash reporter.
    const QString userPreferences = HXLocalPaths::prefsDirectory(kUserDomain);
    QStringList paths = expanded(HXLocalPaths::appSupportDirectory(kUserDomain),
                                 QStringLiteral("Adobe/Premiere Pro/*/Adobe Premiere Pro Prefs"));
    paths += expanded(userPreferences, QStringLiteral("com.Adobe.Premiere Pro.*.plist"));
    paths += expanded(userPreferences, QStringLiteral("com.Adobe.Common*.plist"));
    paths += expanded(userPreferences, QStringLiteral("com.adobe.CSXS*.plist"));
    paths += expanded(HXLocalPaths::prefsDirectory(kLocalDomain), QStringLiteral("com.adobe.CSXS*.plist"));
    paths += HXPath::appendingComponent(userPreferences, QStringLiteral("com.Adobe.Common*.plist"));
    paths += HXPath::appendingComponent(userPreferences, QStringLiteral("com.adobe.crashreporter.plist"));
    return paths;
}

QStringList windowLayoutPaths()
{
    return expanded(HXLocalPaths::documentDirectory(kUserDomain),
                    QStringLiteral("Adobe/Premiere Pro/*/Layouts/*.xml"));
}

QStringList dynamicLinkCachePaths()
{
    return expanded(HXLocalPaths::cacheDirectory(kUserDomain),
                    QStringLiteral("TemporaryItems/com.adobe.dynamiclinkmanager*"));
}

QStringList memoryBalancerPaths()
{
    return expanded(HXLocalPaths::prefsDirectory(kUserDomain),
                    QStringLiteral("Adobe/dynamiclinkmanager/*/memorybalancer*.xml"));
}

QStringList trashedFromFolders()
{
    return QStringList{
               HXPath::appendingComponent(HXLocalPaths::appSupportDirectory(kUserDomain),
                                          QStringLiteral("Adobe/Premiere Pro")),
               HXLocalPaths::prefsDirectory(kUserDomain),
               HXLocalPaths::prefsDirectory(kLocalDomain),
               HXPath::appendingComponent(HXLocalPaths::documentDirectory(kUserDomain),
                                          QStringLiteral("Adobe/Premiere Pro")),
               HXPath::appendingComponent(HXLocalPaths::cacheDirectory(kUserDomain),
                                          QStringLiteral("TemporaryItems")),
           } +
           HXMediaCache::folders();
}

std::optional<QString> applicationIn32BitMode(const QString &bundleIdentifier)
{
    const QString list = HXPath::appendingComponent(HXLocalPaths::prefsDirectory(kUserDomain),
                                                    QStringLiteral("com.apple.LaunchServices.plist"));
    QVariantMap launchServices;
    {
        const HXActingForUser acting(list);
        launchServices = PropertyList::readDictionaryInUsersTree(list);
    }
    QVariantMap architectures = launchServices.value(QStringLiteral("LSArchitecturesForX86_64")).toMap();
    if (!architectures.contains(bundleIdentifier))
        architectures = launchServices.value(QStringLiteral("LSArchitecturesForX86_64v2")).toMap();
    const QVariant entry = architectures.value(bundleIdentifier);
    if (entry.typeId() != QMetaType::QVariantList)
        return std::nullopt;
    const QVariantList choice = entry.toList();
    if (choice.size() < 2 || choice[1].typeId() != QMetaType::QString || choice[1].toString() != u"i386")
        return std::nullopt;
    const std::optional<QString> application =
        HXWorkspace::absolutePathForAppBundleWithIdentifier(bundleIdentifier);
    if (!application)
        return std::nullopt;
    const QString name = HXPath::deletingExtension(HXPath::lastComponent(*application));
    if (name.isEmpty())
        return std::nullopt;
    return name;
}

}  // namespace HXPremiereFiles
