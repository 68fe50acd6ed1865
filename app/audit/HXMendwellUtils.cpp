#include "app/audit/HXMendwellUtils.h"

#include "app/audit/HXPermissionWalk.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"

#include <QFile>

namespace {

class Audit final : public HXPermissionVisitor {
public:
    explicit Audit(const HXPermissionRules &rules) : m_rules(rules) {}

    bool visitFolder(const HXWalkedFolder &folder) override
    {
        if (m_rules.problemOf(folder.attributes, folder.rules) == HXPermissionProblem::None)
            return true;
        wrong.append(folder.path);
        return false;
    }

    void visitItem(const HXWalkedFolder &folder, const char *name,
                   const std::optional<platform::ItemAttributes> &attributes) override
    {
        if (m_rules.problemOf(attributes, folder.rules) != HXPermissionProblem::None)
            wrong.append(HXPath::appendingComponent(folder.path, QFile::decodeName(name)));
    }

    QStringList wrong;

private:
    const HXPermissionRules &m_rules;
};

}  // namespace

std::optional<QStringList> HXMendwellUtils::checkPermissionsForDirectory(const QString &folder)
{
    return checkPermissionsForDirectory(folder, HXPermissionRules::forThisProcess());
}

std::optional<QStringList> HXMendwellUtils::checkPermissionsForDirectory(const QString &folder,
                                                                         const HXPermissionRules &rules)
{
    Audit audit(rules);
    if (!HXWalkPermissions(folder, rules, audit))
        return std::nullopt;
    return audit.wrong;
}

QStringList HXMendwellUtils::auditedFolders()
{
    const QString adobe = QStringLiteral("Adobe");
    return {HXPath::appendingComponent(HXLocalPaths::appSupportDirectory(true), adobe),
            HXPath::appendingComponent(HXLocalPaths::appSupportDirectory(false), adobe),
            HXPath::appendingComponent(HXLocalPaths::documentDirectory(true), adobe)};
}
