#pragma once

// The operating-system services the rest of the program needs, one function per
// service. Only this folder knows which system it runs on.

#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>

namespace platform {

// Login name of the user at the console; none when nobody is logged in or the
// login screen is showing.
std::optional<QString> consoleUser();

// Home folder of a user from the account database; none for an unknown user.
std::optional<QString> homeDirectoryOfUser(const QString &userName);

// Login name of the user with id UID; none for an unknown one.
std::optional<QString> userNameOfUid(unsigned uid);

// Login name of the process's real user.
QString processUserName();

// True when the process runs with user id 0.
bool isRoot();

// The system console log (NSLog's counterpart): one line, prefixed the way the
// platform prefixes such lines.
void systemLog(const QString &line);

struct OSVersion {
    long major = 0;
    long minor = 0;
    long patch = 0;
    // 0, or the system's error code when the version cannot be had (all parts 0).
    long error = 0;
};

// Version of the running system (on Linux the kernel's release: "6.1.0-13-amd64"
// is 6.1.0).
OSVersion osVersion();

// The same as major.minor.patch, e.g. "6.1.0"; "0.0.0" when it cannot be had.
QString osVersionString();

int processorCount();
std::uint64_t physicalMemoryBytes();

// Absolute path of the running executable.
QString executablePath();

// The per-user temporary folder, without a trailing slash.
QString temporaryDirectory();

// The per-user cache folder the system names for this user; none when it names none.
std::optional<QString> userCacheDirectory();

}  // namespace platform

namespace platform {

// Where the user's Trash lies, relative to the home folder.
QString trashFolderInHome();

}  // namespace platform

namespace platform {

// The arguments the process was started with, program path first.
QStringList processArguments();

}  // namespace platform
