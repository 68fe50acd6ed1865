#pragma once

// Tells at start-up whether the previous run crashed, and hands the newest crash
// report to the suite's "Bug Reporter" application. A run records "launch" when
// it starts and "exit" when it stops cleanly, in the standard user defaults or in
// a property list of its own; a launch without a later exit and a crash report
// newer than that launch mean a crash.

#include <QString>

#include <functional>
#include <optional>

class HXBugReporter {
public:
    // Told the report's path, on the main thread, when the last run crashed.
    using CrashDelegate = std::function<void(const QString &reportPath)>;

    static void startBugReporter();
    static void startBugReporterWithDelegate(const CrashDelegate &delegate);
    static void startBugReporter(const std::optional<QString> &name, const std::optional<QString> &plistPath);
    // NAME: the application's name in report file names (none: the bundle's
    // CFBundleName). PLISTPATH: the property list holding the stamps (none: the
    // standard user defaults).
    static void startBugReporter(const std::optional<QString> &name, const std::optional<QString> &plistPath,
                                 const CrashDelegate &delegate);

    static void stopBugReporter();
    static void stopBugReporter(const std::optional<QString> &plistPath);

    // The crash report of the last run, handed to the bug reporter unless the
    // suite-wide "disable-crash-reporter" switch is set; none after a clean run.
    static std::optional<QString> checkForCrashes();
    static std::optional<QString> checkForCrashes(const std::optional<QString> &name,
                                                  const std::optional<QString> &plistPath);

    // Gives a file written in a user's home ("/Users/NAME/...", or the console
    // user's home wherever it is) to that user.
    static void chownPlist(const QString &path);
};
