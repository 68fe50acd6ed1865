#pragma once

// HXAuthorization: the one place where the program obtains administrator rights
// and acts with them. As root every operation runs its system tool directly.
// Otherwise the first privileged call asks the system for the right (polkit;
// the desktop shows its password dialog) and starts one privileged runner for
// this process; every later operation is a command to that runner over a
// private pipe, so one password covers a whole repair and no other process
// can use the right.
//
// Refusals and errors go to the system console log (platform::systemLog).

#include "platform/AdminAuthorization.h"
#include "platform/Trash.h"
#include "system/HXPrivilegedRequest.h"

#include <QString>
#include <QStringList>

#include <memory>

class HXAuthorization {
public:
    // Statuses of authExecTask.
    static constexpr int kStatusSuccess = 0;
    static constexpr int kStatusNotAuthorized = -1;
    static constexpr int kStatusMissingTool = -2;

    // The one instance, created on first use with GUI (may ask for a password)
    // or without; later calls return it whatever they pass. Never freed.
    static HXAuthorization &sharedController();
    static HXAuthorization &sharedController(bool gui);

    // Acquires the right, asking the user (GUI only). True when authorized.
    bool authStart();
    // Acquires the right from given credentials, without asking.
    bool authStartWithUser(const QString &user, const QString &password);
    // Gives up the right: the privileged runner ends.
    void authEnd();
    bool isAuthorized() const;
    bool canAuthorize() const;

    std::shared_ptr<platform::AdminAuthorization> authRef() const { return m_authRef; }
    void setAuthRef(std::shared_ptr<platform::AdminAuthorization> authRef) { m_authRef = std::move(authRef); }
    bool hasGUI() const { return m_hasGUI; }
    void setHasGUI(bool hasGUI) { m_hasGUI = hasGUI; }
    // The user's home, recorded at creation when not running as root.
    const QString &userDirectory() const { return m_userDirectory; }

    // Runs TOOL with PARAMETERS as administrator: 0 success, -1 not authorized,
    // -2 the tool does not exist, else the system's error. With ASYNC the call
    // returns once the tool has started; otherwise when it has ended. Without
    // root's rights only the bundle's helper tools and "touch -c [-h] PATH" can
    // be run: the runner takes nothing else.
    int authExecTask(const QString &tool, const QStringList &parameters);
    int authExecTask(const QString &tool, const QStringList &parameters, bool async);
    // The same, waited for, for a helper tool that reports what it changed on its
    // standard output: REPORT receives that output, whether the tool ran here as
    // root or through the administrator helper (which hands back its whole lines,
    // up to HXPrivilegedReply::kMaximumOutput bytes).
    int authExecTask(const QString &tool, const QStringList &parameters, QByteArray *report);

    // File operations, as the system tools do them, carried out by descriptors:
    // none follows a symbolic link out of the folders it was given. Protected
    // folders (exact match, under any spelling) are refused.
    bool authRemoveFile(const QString &path);
    bool authTrashFile(const QString &path);
    bool authTrashFile(const QString &path, bool deleteOnRootAccount);
    // TRASHED, when the item was moved to the Trash, receives where it went and its record.
    bool authTrashFile(const QString &path, bool deleteOnRootAccount, platform::trash::Outcome *trashed);
    bool authTrashFolderContents(const QString &folder);
    bool authTrashFolderContents(const QString &folder, bool deleteOnRootAccount);
    bool authMoveFolderContents(const QString &folder, const QString &destination);
    bool authMoveFile(const QString &source, const QString &destination);
    bool authCopyFile(const QString &source, const QString &destination);
    bool authCreateDir(const QString &path);
    // Stores the machine's requireAdminPassword (1 when REQUIRED, else 0) with the
    // right. True when it was written.
    bool authSetRequireAdminPassword(bool required);

    // Where the privileged runner lies: beside the main executable in the bundle.
    static QString runnerPath();

    HXAuthorization(const HXAuthorization &) = delete;
    HXAuthorization &operator=(const HXAuthorization &) = delete;

private:
    explicit HXAuthorization(bool gui);
    ~HXAuthorization() = delete;

    // Carries out REQUEST with the rights: in process as root, else through the
    // runner (asking for the right first when needed).
    int perform(const HXPrivilegedRequest &request, HXPrivilegedReply *reply = nullptr);
    int performFileOperation(HXPrivilegedOperation operation, const QStringList &paths);
    // Writes OPERATION's refusal for a protected PATH (under any spelling).
    static bool refusesProtected(HXPrivilegedOperation operation, const QString &path);

    std::shared_ptr<platform::AdminAuthorization> m_authRef;
    bool m_hasGUI = false;
    QString m_userDirectory;
};
