#pragma once

// The desktop's view of files: which folders are packages, telling the file
// browser that a folder changed, and registering an application bundle.

#include <QString>

namespace platform {

// True when PATH is a folder the desktop shows as one document (a package).
bool isFilePackage(const QString &path);
// True when a folder named NAME would be a package: the name alone decides here.
bool hasPackageName(const QString &name);

// Tells the file browser that the folder PATH changed; 0 when it was told (or
// needs no telling), else an error status.
int notifyFolderChanged(const QString &path);

// Makes the application bundle at PATH known to the desktop; false when PATH is
// not an application bundle.
bool registerApplication(const QString &path);

}  // namespace platform
