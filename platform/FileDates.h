#pragma once

// Time stamps a file carries besides the POSIX ones.

#include <QDateTime>
#include <QString>

namespace platform {

// Sets the creation (birth) date of PATH; false when the system does not allow it.
bool setCreationDate(const QString &path, const QDateTime &date);

}  // namespace platform
