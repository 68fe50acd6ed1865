#pragma once

// What the privileged side of HXAuthorization is asked to do, and how it does it:
// run a tool as given, or one of the file operations on the system tools with
// every path confined (platform/ConfinedPath.h), so that no symbolic link leads
// a privileged tool out of the folders it was given. Used in-process when running
// as root, and by the privileged runner (authtool) otherwise.

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

enum class HXPrivilegedOperation : int {
    Exec,        // TOOL with ARGUMENTS, as given
    Remove,      // rm -Rdf PATH
    RemoveTree,  // rm -R -f PATH
    Move,        // mv -f SOURCE DESTINATION
    Copy,        // cp -f -p -R SOURCE DESTINATION
    MakeFolder,  // mkdir -p PATH
};

struct HXPrivilegedRequest {
    HXPrivilegedOperation operation = HXPrivilegedOperation::Exec;
    // Exec: wait for the tool to end before answering.
    bool wait = true;
    QString tool;           // Exec only
    QStringList arguments;  // Exec: the tool's arguments; file operations: their paths

    QByteArray encoded() const;
    static std::optional<HXPrivilegedRequest> decoded(const QByteArray &bytes);
};

// The system tools of the file operations, one table.
namespace HXSystemTools {
QString rm();
QString mv();
QString cp();
QString mkdir();
QString touch();
QString chown();
}  // namespace HXSystemTools

// The status of a tool that could not be run, or a path that cannot be confined
// (the value macOS gives a failed privileged execution).
constexpr int kHXPrivilegedToolFailure = -60031;

// Carries out REQUEST in this process, which must already have the rights: 0 when
// the tool was run (whatever its exit status), else kHXPrivilegedToolFailure.
// Each refusal is written to the system console log.
int HXPerformPrivilegedRequest(const HXPrivilegedRequest &request);

// The privileged runner: answers requests read from INPUT on OUTPUT until INPUT
// ends. Returns the process exit status.
int HXPrivilegedRunnerMain(int input, int output);
