#pragma once

// What the privileged side of HXAuthorization may be asked to do, and how it does
// it. Requests are typed: the file operations, touching an item, running one of
// the bundle's own helper tools, and the machine's password requirement at
// start. Nothing else, in particular no executable or settings file named by
// the client. Every request is checked where it is carried out (the
// runner trusts no client): its shape, the protected-folder rule under any
// spelling of a folder, and every path is opened through platform/Folder.h, so
// no symbolic link a user planted leads root out of the folders it was given.
// Carried out in process when running as root, and by the privileged runner
// (authtool) otherwise.

#include "platform/AdminAuthorization.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

enum class HXPrivilegedOperation : int {
    Remove,      // PATH and everything below it ("rm -Rdf")
    RemoveTree,  // the same, for the entries of a folder being emptied ("rm -R -f")
    Move,        // SOURCE DESTINATION, into DESTINATION when it is a folder ("mv -f")
    Copy,        // SOURCE DESTINATION, the same way, keeping owners and modes ("cp -f -p -R")
    MakeFolder,  // PATH with its missing parents ("mkdir -p")
    Trash,       // SOURCE NAME: into the user's trash as NAME, with its record
    Touch,       // PATH: times set to now if it exists ("touch -c -h")
    RunHelper,   // NAME ARGUMENTS...: one of the bundle's helper tools
    // "1" or "0": the machine's requireAdminPassword, in the file the runner
    // knows itself (the client names no path).
    RequireAdminPassword,
};

struct HXPrivilegedRequest {
    HXPrivilegedOperation operation = HXPrivilegedOperation::Remove;
    QStringList arguments;
    // RunHelper: answer only once the tool has ended.
    bool wait = true;
    // RunHelper, waited for: hand back what the tool wrote on its standard
    // output (a report of what it changed).
    bool captureOutput = false;

    QByteArray encoded() const;
    // None for anything that is not a well-formed request: an unknown
    // operation, the wrong number of arguments, a relative path, a name with a
    // "/", a helper tool that is not one of the bundle's.
    static std::optional<HXPrivilegedRequest> decoded(const QByteArray &bytes);
    bool isWellFormed() const;
};

// What a carried-out request hands back besides its status: where a trashed
// item went (Trash), or a helper tool's standard output (RunHelper with
// captureOutput): its first kMaximumOutput bytes, cut after the last whole line,
// so that a reply always fits in one message to the client.
struct HXPrivilegedReply {
    static constexpr qsizetype kMaximumOutput = platform::kMaximumMessage / 2;

    qint32 status = 0;
    QString trashedPath;
    QString infoPath;
    QByteArray output;

    QByteArray encoded() const;
    // None for anything that is not a reply the runner sends.
    static std::optional<HXPrivilegedReply> decoded(const QByteArray &bytes);
};

// The bundle's helper tools, the only programs the runner starts.
const QStringList &HXPrivilegedHelperTools();

// The system tools of the file services, one table.
namespace HXSystemTools {
QString rm();
QString mv();
QString cp();
QString mkdir();
QString touch();
QString chown();
}  // namespace HXSystemTools

// The status of a request that was refused or could not be carried out (the
// value macOS gives a failed privileged execution).
constexpr int kHXPrivilegedToolFailure = -60031;

// Where a request is carried out: whose trash receives trashed items, and the
// folder holding the helper tools.
struct HXPrivilegedContext {
    QString trashFilesFolder;
    QString helperFolder;
};

// The refusal text of OPERATION for a protected PATH; empty when the operation
// has no such rule.
QString HXProtectedPathRefusal(HXPrivilegedOperation operation, const QString &path);

// Carries out REQUEST in this process, which must already have the rights: 0 when
// it was carried out (as the tools it stands for, whatever came of it), else
// kHXPrivilegedToolFailure. Each refusal is written to the system console log.
// REPLY, when given, receives the status and what the request hands back.
int HXPerformPrivilegedRequest(const HXPrivilegedRequest &request, const HXPrivilegedContext &context,
                               HXPrivilegedReply *reply = nullptr);

// The privileged runner: answers requests read from INPUT on OUTPUT until INPUT
// ends. Returns the process exit status.
int HXPrivilegedRunnerMain(int input, int output);
