#pragma once

// What the verified copy and the background copy share before any byte moves:
// their console messages, the checks of source and destination folder, and the
// settings dictionary handed to their delegates.

#include "platform/Platform.h"
#include "system/HXFormat.h"

#include <QString>
#include <QVariant>
#include <QVariantMap>

namespace HXFileManager {

// A copy's message, to the system console.
template <typename... Args> void copyConsole(QStringView format, const Args &...args)
{
    platform::systemLog(HXFormat(format, args...));
}

// False, with the copy's message, when SOURCE does not exist.
bool copySourceExists(const QString &source);
// False, with the copy's message, when DESTINATION's folder is missing and could
// not be made within ten seconds.
bool copyDestinationFolderMade(const QString &source, const QString &destination);
// SETTINGS with "operationtype" and, when given, "delegate", "object" and "object2".
QVariantMap copySettings(QVariantMap settings, const QVariant &delegate, const QVariant &object,
                         const QVariant &object2);

}  // namespace HXFileManager
