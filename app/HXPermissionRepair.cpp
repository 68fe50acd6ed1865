// The permission step of a repair, on HXAppController.

#include "app/HXAppController.h"
#include "app/HXRunRecord.h"
#include "app/audit/HXToolReport.h"

#include "diagnostics/HXException.h"
#include "system/HXAuthorization.h"

#include <exception>

void HXAppController::setFilePermissions()
{
    try {
        // The tool's status is not looked at: the next audit tells.
        QByteArray report;
        HXAuthorization::sharedController().authExecTask(
            currentBundlePath() + QStringLiteral("/Contents/MacOS/permissiontool"), {}, &report);
        HXRunRecord::notePermissionChanges(HXToolReport::permissionChangesIn(report));
    } catch (const std::exception &exception) {
        HXException::logException(exception, "-[HXAppController setFilePermissions]");
    }
}
