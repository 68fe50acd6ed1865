#include "app/audit/HXPermissionRules.h"

#include "system/HXLocalPaths.h"
#include "system/HXPath.h"

#include <algorithm>
#include <cstring>

namespace {

bool endsWith(const char *name, const char *suffix)
{
    const size_t length = std::strlen(name);
    const size_t suffixLength = std::strlen(suffix);
    return length >= suffixLength && std::memcmp(name + length - suffixLength, suffix, suffixLength) == 0;
}

}  // namespace

HXAccessRights HXAccessRights::of(const platform::Account &account)
{
    return HXAccessRights{account.uid == 0, account.uid, account.groups};
}

mode_t HXAccessRights::bitFor(const platform::ItemAttributes &item, mode_t bit) const
{
    if (item.owner == uid)
        return bit << 6;
    if (std::find(groups.begin(), groups.end(), item.group) != groups.end())
        return bit << 3;
    return bit;
}

bool HXAccessRights::allows(const platform::ItemAttributes &item, mode_t bit) const
{
    return everything || (item.mode & bitFor(item, bit)) != 0;
}

HXPermissionRules::HXPermissionRules(QString home, QString ownerName, const QString &localApplicationSupport,
                                     HXAccessRights rights)
    : m_home(std::move(home)), m_ownerName(std::move(ownerName)), m_rights(std::move(rights))
{
    for (const char *excluded :
         {"Adobe/AAMUpdaterInventory", "Adobe/Uninstall", "Adobe/Updater", "Adobe/Installers",
          "Adobe/CameraRaw", "Adobe/Help", "Adobe/AIR", "Adobe/Flash"})
        m_excludedPrefixes.append(
            HXPath::appendingComponent(localApplicationSupport, QString::fromLatin1(excluded)));
}

HXPermissionRules HXPermissionRules::forThisProcess()
{
    return HXPermissionRules(HXLocalPaths::userDirectory(), HXLocalPaths::username(),
                             HXLocalPaths::appSupportDirectory(false),
                             HXAccessRights::of(platform::processAccount()));
}

bool HXPermissionRules::isExcluded(const QString &folderPath) const
{
    for (const QString &prefix : m_excludedPrefixes)
        if (folderPath.startsWith(prefix))
            return true;
    const QString last = HXPath::lastComponent(folderPath);
    return last == QLatin1String("Linguistics") || last.toLower() == QLatin1String("legal");
}

HXFolderRules HXPermissionRules::rulesFor(const QString &folderPath) const
{
    HXFolderRules rules;
    if (folderPath.contains(QLatin1String("/MediaCore")))
        rules.folderClass = HXFolderClass::MediaCache;
    else if (!m_home.isEmpty() && folderPath.startsWith(m_home))
        rules.folderClass = HXFolderClass::Home;
    else
        rules.folderClass = HXFolderClass::Outside;
    rules.slStore = folderPath.contains(QLatin1String("/SLStore"));
    return rules;
}

bool HXPermissionRules::isSkippedName(const char *name)
{
    return std::strcmp(name, ".DS_Store") == 0 || endsWith(name, "~recover.prproj");
}

bool HXPermissionRules::isOwnedByUser(uid_t owner) const
{
    const auto cached = m_ownerCache.find(owner);
    if (cached != m_ownerCache.end())
        return cached->second;
    const std::optional<QString> name = platform::accountNameOf(owner);
    const bool owned = name.has_value() && !m_ownerName.isEmpty() && *name == m_ownerName;
    m_ownerCache.emplace(owner, owned);
    return owned;
}

HXPermissionProblem HXPermissionRules::problemOf(const std::optional<platform::ItemAttributes> &attributes,
                                                 const HXFolderRules &rules) const
{
    const bool home = rules.folderClass == HXFolderClass::Home;
    const mode_t value = attributes ? attributes->permissions() : 0;
    if (attributes && attributes->immutable)
        return HXPermissionProblem::Locked;
    if (home && (!attributes || !isOwnedByUser(attributes->owner)))
        return HXPermissionProblem::WrongOwner;
    if (!attributes || !m_rights.mayRead(*attributes))
        return HXPermissionProblem::NotReadable;
    if (home && !m_rights.mayWrite(*attributes))
        return HXPermissionProblem::NotWritable;
    if (rules.folderClass == HXFolderClass::Outside && value < kHXOutsideMinimumPermissions)
        return HXPermissionProblem::BelowOutsideMinimum;
    if (rules.slStore && value < kHXSLStoreMinimumPermissions)
        return HXPermissionProblem::BelowSLStoreMinimum;
    return HXPermissionProblem::None;
}
