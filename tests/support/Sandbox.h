#pragma once

// A throw-away system for running the built bundle as a real process: a private
// mount and process namespace (bubblewrap) in which /Users, /Library and
// /Applications are folders of this test alone, the console user is "anna" (home
// /Users/anna) and the bundle is installed as /Applications/Mendwell.app. Every
// real top-level folder is bound into a fresh root, so nothing of the test reaches
// the real /Library, /Users or /Applications.

#include "tests/support/Process.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <sys/types.h>

class Sandbox {
public:
    static constexpr const char *kUser = "anna";

    // Why sandboxes cannot run here (not root, no bubblewrap, no account anna);
    // empty when they can.
    static QString unavailableReason();
    // The user and group ids of the test account (0 when it does not exist).
    static uid_t userId();
    static gid_t userGroupId();

    Sandbox();

    // The host path of a path inside the sandbox (under /Users, /Library or
    // /Applications).
    QString hostPath(const QString &sandboxPath) const;

    // Creates a folder (with its parents) or a file inside the sandbox, owned by root
    // or anna, with MODE when one is given (01777: everyone's, as /tmp is).
    bool makeFolder(const QString &sandboxPath, bool ownedByUser = false, int mode = -1) const;
    bool writeFile(const QString &sandboxPath, const QByteArray &contents, bool ownedByUser = false,
                   int mode = -1) const;
    // A stand-in program: SCRIPT written at SANDBOXPATH, executable, owned by root.
    bool writeProgram(const QString &sandboxPath, const QByteArray &script) const;
    QByteArray readFile(const QString &sandboxPath) const;
    // The lines of a record that a detached program writes: waits (a bounded
    // while) until it holds at least COUNT lines, then returns what it holds.
    QStringList recordLines(const QString &sandboxPath, int count) const;
    bool exists(const QString &sandboxPath) const;

    // Copies the test program NAME (built into the test-programs folder) into the
    // sandbox and returns its path there.
    QString installTestProgram(const QString &name) const;
    // The same into the installed bundle's Contents/MacOS, beside Mendwell; empty
    // when it could not be copied.
    QString installInBundle(const QString &name) const;

    // Installs the stand-in application (tests/programs/editorstandin.cpp) as the
    // bundle PATH, its executable named EXECUTABLE, with INFOENTRIES (plist keys and
    // values) in its Info.plist. A non-empty BEHAVIOUR is written with RECORD as its
    // behaviour file (else a test's script writes it).
    bool installStandInApplication(const QString &path, const QString &executable,
                                   const QByteArray &infoEntries, const QByteArray &behaviour = {},
                                   const QString &record = {}, bool ownedByUser = false) const;

    // Runs ARGUMENTS inside the sandbox as root, with anna as the console user
    // (SUDO_USER=anna). "Mendwell" as the program means the installed bundle.
    ProcessResult runAsRoot(const QStringList &arguments, const QStringList &environment = {}) const;
    // Runs ARGUMENTS inside the sandbox as anna.
    ProcessResult runAsUser(const QStringList &arguments, const QStringList &environment = {}) const;

    // Shows the host's HOSTPATH (a file or folder) read-only in place of
    // SANDBOXPATH, which must exist on the host, in every later run.
    void overlay(const QString &hostPath, const QString &sandboxPath);

    static QString mendwellPath()
    {
        return QStringLiteral("/Applications/Mendwell.app/Contents/MacOS/Mendwell");
    }

private:
    ProcessResult run(const QStringList &arguments, const QStringList &environment, bool asUser) const;
    QStringList bubblewrapArguments() const;

    QTemporaryDir m_root;
    QStringList m_overlays;  // host path, sandbox path, ...
};

// Skips the calling test when sandboxes cannot run here.
#define SKIP_WITHOUT_SANDBOX()                                                                               \
    do {                                                                                                     \
        const QString reason = Sandbox::unavailableReason();                                                 \
        if (!reason.isEmpty())                                                                               \
            GTEST_SKIP() << reason.toStdString();                                                            \
    } while (false)
