#pragma once

// Crash reports written by the crashing process itself, named as the Mac names
// them ("Name_yyyy-MM-dd-HHmmss_host.crash"), so the bug reporter finds them
// where it looks on the Mac. A fatal signal or an uncaught exception writes one,
// with the signal, the faulting address and a backtrace, and then the process
// dies as it would have.

#include <QString>

#include <optional>
#include <sys/types.h>

namespace platform {

// Installs the writer for reports into FOLDER, which is opened now (and made,
// for OWNER, when missing; as root the reports are given to OWNER too). False
// when the folder cannot be opened; the process then dies without a report.
bool installCrashReportWriter(const QString &folder, const QString &applicationName,
                              std::optional<uid_t> owner);

}  // namespace platform
