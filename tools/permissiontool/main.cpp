// permissiontool: run as root with no arguments by a repair; corrects the
// permissions under the audited Adobe folders for the user at the console, so
// that the audit finds nothing there afterwards. Exit status 0 when everything
// was corrected; otherwise one line per item left wrong on standard error.
// Standard output gets one report line per item changed (app/audit/HXToolReport.h).

#include "app/audit/HXMendwellUtils.h"
#include "app/audit/HXPermissionCorrection.h"
#include "system/HXLocalPaths.h"

#include <cstdio>
#include <sys/resource.h>

namespace {

int failWith(const QString &message)
{
    std::fprintf(stderr, "permissiontool: %s\n", qPrintable(message));
    return 1;
}

// Every level of a deep tree holds one descriptor while the walk is below it.
void allowManyDescriptors()
{
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc > 1) {
        std::fprintf(stderr, "usage: %s (no arguments)\n", argv[0]);
        return 2;
    }
    const QString user = HXLocalPaths::username();
    const std::optional<platform::Account> account = platform::accountNamed(user);
    if (user.isEmpty() || !account)
        return failWith(QStringLiteral("nobody is logged in at the console"));
    const QString home = HXLocalPaths::userDirectory();
    if (home.isEmpty())
        return failWith(QStringLiteral("%1 has no home folder").arg(user));
    allowManyDescriptors();

    const HXPermissionRules rules = correctionRules(home, *account);
    int failures = 0;
    for (const QString &root : HXMendwellUtils::auditedFolders()) {
        const PermissionRepairResult result = repairPermissions(root, rules, *account);
        std::fwrite(result.changes.constData(), 1, static_cast<size_t>(result.changes.size()), stdout);
        for (const QString &failure : result.failures)
            failWith(failure);
        failures += int(result.failures.size());
    }
    return failures == 0 ? 0 : 1;
}
