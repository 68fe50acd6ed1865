#pragma once

// What a repair trashes of Premiere Pro, gathered from the standard folders in the
// order the repair trashes it. Gathering looks only; nothing is changed here.

#include <QString>
#include <QStringList>

#include <optional>

namespace HXPremiereFiles {

inline const QString kBundleIdentifier = QStringLiteral("com.adobe.AdobePremierePro");
inline const QString kApplicationName = QStringLiteral("Adobe Premiere Pro");

// The preference files. Two entries are literal paths, added whether or not they
// exist: the crash reporter's settings, and "com.Adobe.Common*.plist" a second
// time, asterisk and all, which trashes nothing (it always has been so).
QStringList preferencePaths();
// The workspace layouts of every Premiere Pro version.
QStringList windowLayoutPaths();
QStringList dynamicLinkCachePaths();
QStringList memoryBalancerPaths();

// The folders everything above is found in: what a repair trashed came from
// below one of them, so a restore puts nothing anywhere else.
QStringList trashedFromFolders();

// The application's name when the system is told to start it in 32-bit mode.
std::optional<QString> applicationIn32BitMode(const QString &bundleIdentifier);

}  // namespace HXPremiereFiles
