#pragma once

// Which running programs killtool ends: the Adobe background processes that hold
// Premiere Pro's files and caches open while a repair replaces them, as far as
// ending them cannot be turned against someone else.

#include "platform/Processes.h"

#include <QString>

#include <optional>
#include <sys/types.h>
#include <vector>

// True when EXECUTABLEPATH (absolute) is one of those programs: its file name is
// exactly one of the table's names and one of the folders above it is "Adobe" or
// begins with "Adobe ". A look-alike name, or the right name anywhere else, is
// not one.
bool isAdobeBackgroundProcess(const QString &executablePath);

// Whether a process running one of those programs may be ended: it is wholly
// the console user's (SOLEUSER, the user its real, effective and saved ids all
// name, is CONSOLEUSER, who is not root), or its program is root's alone
// (ROOTONLYPROGRAM, see platform::PinnedProcess::runsRootOnlyProgram). Its name
// and place alone say nothing: whoever can rename a file can give it both.
bool mayEndAdobeProcess(std::optional<uid_t> soleUser, std::optional<uid_t> consoleUser,
                        bool rootOnlyProgram);

// Every running process killtool ends, pinned, this process left out. The
// console user is the helper tools' (HXLocalPaths::username: as root the
// seat's user, else SUDO_USER, else PKEXEC_UID; otherwise this process's own).
std::vector<platform::PinnedProcess> adobeProcessesToEnd();
