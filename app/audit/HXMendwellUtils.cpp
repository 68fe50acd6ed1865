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
        const HXPermissionProblem problem = m_rules.problemOf(folder.attributes, folder.rules);
        if (problem == HXPermissionProblem::None)
            return true;
        wrong.push_back({folder.path, problem});
        return false;
    }

    void visitItem(const HXWalkedFolder &folder, const char *name,
                   const std::optional<platform::ItemAttributes> &attributes) override
    {
        const HXPermissionProblem problem = m_rules.problemOf(attributes, folder.rules);
        if (problem != HXPermissionProblem::None)
            wrong.push_back({HXPath::appendingComponent(folder.path, QFile::decodeName(name)), problem});
    }

    std::vector<HXPermissionFinding> wrong;

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
    const std::optional<std::vector<HXPermissionFinding>> findings = findingsForDirectory(folder, rules);
    if (!findings)
        return std::nullopt;
    QStringList paths;
    paths.reserve(static_cast<qsizetype>(findings->size()));
    for (const HXPermissionFinding &finding : *findings)
        paths.append(finding.path);
    return paths;
}

std::optional<std::vector<HXPermissionFinding>>
HXMendwellUtils::findingsForDirectory(const QString &folder, const HXPermissionRules &rules)
{
    Audit audit(rules);
    if (!HXWalkPermissions(folder, rules, audit))
        return std::nullopt;
    return std::move(audit.wrong);
}

QString HXMendwellUtils::describe(HXPermissionProblem problem)
{
    switch (problem) {
    case HXPermissionProblem::None:
        return QStringLiteral("correct");
    case HXPermissionProblem::Locked:
        return QStringLiteral("locked");
    case HXPermissionProblem::WrongOwner:
        return QStringLiteral("owned by someone else");
    case HXPermissionProblem::NotReadable:
        return QStringLiteral("not readable");
    case HXPermissionProblem::NotWritable:
        return QStringLiteral("not writable");
    case HXPermissionProblem::BelowOutsideMinimum:
        return QStringLiteral("permissions below 644");
    case HXPermissionProblem::BelowSLStoreMinimum:
        return QStringLiteral("permissions below 777 in SLStore");
    }
    return {};
}

QStringList HXMendwellUtils::auditedFolders()
{
    const QString adobe = QStringLiteral("Adobe");
    return {HXPath::appendingComponent(HXLocalPaths::appSupportDirectory(true), adobe),
            HXPath::appendingComponent(HXLocalPaths::appSupportDirectory(false), adobe),
            HXPath::appendingComponent(HXLocalPaths::documentDirectory(true), adobe)};
}
