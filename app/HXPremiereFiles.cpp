#include "app/HXPremiereFiles.h"

#include "fs/HXWildcardPaths.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"

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

}  // namespace HXPremiereFiles
