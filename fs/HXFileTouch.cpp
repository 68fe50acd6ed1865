#include "fs/HXFileAttributes.h"

#include "platform/FileDates.h"
#include "platform/Platform.h"
#include "system/HXAuthorization.h"
#include "system/HXPrivilegedRequest.h"
#include "system/HXTaskEx.h"

#include <QFile>

#include <unistd.h>

namespace HXFileManager {

bool touchFile(const QString &path, bool setCreationDate)
{
    using namespace std::chrono_literals;
    if (path.isEmpty())
        return false;
    bool touched = false;
    // Root goes through the checked request, which never follows a user's link.
    if (!platform::isRoot() && ::access(QFile::encodeName(path).constData(), W_OK) == 0) {
        HXTaskEx::runTask(HXSystemTools::touch(), {QStringLiteral("-c"), path}, 5s);
        if (setCreationDate)
            platform::setCreationDate(path, QDateTime::currentDateTimeUtc());
        touched = true;
    } else {
        if (setCreationDate)
            platform::setCreationDate(path, QDateTime::currentDateTimeUtc());
        // "-h": as administrator, a link is touched itself, never what it points to.
        touched = HXAuthorization::sharedController().authExecTask(
                      HXSystemTools::touch(), {QStringLiteral("-c"), QStringLiteral("-h"), path}, false) == 0;
    }
    // File browsers here watch their folders themselves; there is nobody to tell
    // that the item changed.
    return touched;
}

}  // namespace HXFileManager
