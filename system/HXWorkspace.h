#pragma once

// The desktop's applications: which run, where an application is installed, and
// starting or asking one to quit. They are the applications of the person at the
// desktop: as root the console user's, otherwise this user's own.

#include <QString>
#include <QStringList>

#include <optional>
#include <sys/types.h>
#include <vector>

namespace HXWorkspace {

struct RunningApplication {
    pid_t pid = 0;
    QString executablePath;
    QString bundlePath;
    // Empty when the bundle's Info.plist names none.
    QString bundleIdentifier;
};

// Processes of the desktop user whose executable lies in a bundle's
// Contents/MacOS folder, in the system's order.
std::vector<RunningApplication> runningApplications();

// The bundle identifiers of the running applications, each once, in that order.
QStringList runningBundleIdentifiers();

// The first application bundle with IDENTIFIER in the Applications folders: the
// machine's, then the desktop user's, each with one level of sub-folders.
std::optional<QString> absolutePathForAppBundleWithIdentifier(const QString &identifier);

// Starts the application bundle at PATH for the desktop user (never as root),
// handing it ARGUMENTS (documents to open); false when it is no application or
// could not be started.
bool launchApplication(const QString &path, const QStringList &arguments = {});

// Opens the file at PATH with the desktop's application for it, for the desktop
// user; false when that could not be started.
bool openFile(const QString &path);

// Opens ADDRESS (a web page) in the desktop user's browser; false when that could
// not be started.
bool openURL(const QString &address);

// Asks every running application named NAME (its bundle's name, without ".app",
// or its CFBundleName) to quit, every one of its processes, without waiting.
// None when at least one took the request, else what went wrong.
std::optional<QString> quitApplication(const QString &name);

}  // namespace HXWorkspace
