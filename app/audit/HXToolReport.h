#pragma once

// What killtool and permissiontool tell their caller about what they changed: one
// line per change on standard output, tab-separated, text fields percent-encoded
// (so no name can forge a line), and the reading of those lines into the run
// record's dictionaries. Other lines (a tool's messages) are left out.

#include "platform/FolderScan.h"

#include <QByteArray>
#include <QString>
#include <QVariantList>

#include <sys/types.h>

namespace HXToolReport {

// A process killtool ended, and the signal that ended it ("TERM" or "KILL").
QByteArray endedProcessLine(const QString &name, pid_t pid, const QString &path, const char *signal);
// An item permissiontool changed: owner, mode and locked flag before and after.
QByteArray permissionChangeLine(const QString &path, const platform::ItemAttributes &before,
                                const platform::ItemAttributes &after);

// Dictionaries {name, pid, path, signal}.
QVariantList endedProcessesIn(const QByteArray &output);
// Dictionaries {path, ownerBefore, modeBefore, lockedBefore, ownerAfter, modeAfter, lockedAfter};
// owners as account names where the account exists, modes as octal text.
QVariantList permissionChangesIn(const QByteArray &output);

}  // namespace HXToolReport
