#include "platform/FileDates.h"

namespace platform {

bool setCreationDate(const QString &path, const QDateTime &date)
{
    // The kernel stamps a file's birth time when it creates it and offers no way
    // to change it afterwards.
    Q_UNUSED(path);
    Q_UNUSED(date);
    return false;
}

}  // namespace platform
