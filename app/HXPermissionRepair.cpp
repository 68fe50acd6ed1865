// The permission step of a repair, on HXAppController.

#include "app/HXAppController.h"

#include "diagnostics/HXException.h"
#include "system/HXAuthorization.h"

#include <exception>

void HXAppController::setFilePermissions()
{
    try {
        // The tool's status is not looked at: the next audit tells.
        HXAuthorization::sharedController().authExecTask(
            currentBundlePath() + QStringLiteral("/Contents/MacOS/permissiontool"), {}, false);
    } catch (const std::exception &exception) {
        HXException::logException(exception, "-[HXAppController setFilePermissions]");
    }
}
