#pragma once

// Waiting for another process to create or finish writing a file. Both block
// their caller without pumping events.

#include <QString>

#include <chrono>

namespace HXFileManager {

// One look: a file that is not there yet (or is empty) gets a log line and a
// short pause, then the call returns.
void waitForFileCreation(const QString &path, std::chrono::seconds timeout);

// Returns once PATH has not been modified for 4 seconds. Waits only when it is
// being written now, or when LOCKFILE (a name in PATH's folder) exists.
void waitForFileWrites(const QString &path, const QString &lockFile = QString());

}  // namespace HXFileManager
