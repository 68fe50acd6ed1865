#pragma once

// Which running programs killtool ends: the Adobe background processes that hold
// Premiere Pro's files and caches open while a repair replaces them.

#include <QString>

// True when EXECUTABLEPATH (absolute) is one of those programs: its file name is
// exactly one of the table's names and one of the folders above it is "Adobe" or
// begins with "Adobe ". A look-alike name, or the right name anywhere else, is
// not one.
bool isAdobeBackgroundProcess(const QString &executablePath);
