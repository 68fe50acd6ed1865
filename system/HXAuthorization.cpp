#include "system/HXAuthorization.h"

#include "diagnostics/HXLog.h"
#include "platform/Folder.h"
#include "platform/Platform.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXPrivilegedRequest.h"
#include "system/HXTaskEx.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// lstat: a dangling symbolic link is an item too.
bool itemExists(const QString &path)
{
    struct stat info {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

// Entries of FOLDER in the order the file system lists them; none when unreadable.
QStringList folderEntries(const QString &folder)
{
    const std::optional<platform::Folder> opened = platform::Folder::open(folder);
    return opened ? opened->entries() : QStringList();
}

}  // namespace

HXAuthorization &HXAuthorization::sharedController()
{
    return sharedController(true);
}

HXAuthorization &HXAuthorization::sharedController(bool gui)
{
    // Created once, under the static's own lock; never freed.
    static HXAuthorization *const instance = new HXAuthorization(gui);
    return *instance;
}

HXAuthorization::HXAuthorization(bool gui) : m_hasGUI(gui)
{
    // A process started with the right already is the privileged runner itself,
    // which never builds this object; nothing to adopt here.
    if (!platform::isRoot())
        m_userDirectory = HXLocalPaths::userDirectory();
}

QString HXAuthorization::runnerPath()
{
    return HXPath::appendingComponent(HXPath::deletingLastComponent(platform::executablePath()),
                                      QStringLiteral("authtool"));
}

// --- Rights

bool HXAuthorization::authStart()
{
    if (isAuthorized())
        return true;
    if (!m_hasGUI) {
        platform::systemLog(QStringLiteral("Unable to authorize"));
        return false;
    }
    m_authRef = platform::AdminAuthorization::acquire(runnerPath());
    return m_authRef != nullptr;
}

bool HXAuthorization::authStartWithUser(const QString &user, const QString &password)
{
    if (platform::isRoot())
        return true;
    if (user.isEmpty() || password.isEmpty())
        return false;
    int status = 0;
    m_authRef = platform::AdminAuthorization::acquire(runnerPath(), user, password, &status);
    if (m_authRef)
        return true;
    if (status == platform::AdminAuthorization::kStatusDenied) {
        const QString failed = QStringLiteral("Authorization failed. Invalid username or password");
        platform::systemLog(failed);
        HXLog::appendLog(failed);
    } else {
        platform::systemLog(HXFormat(u"Unable to create authRef - error %d", status));
    }
    return false;
}

void HXAuthorization::authEnd()
{
    m_authRef.reset();
}

bool HXAuthorization::isAuthorized() const
{
    return platform::isRoot() || (m_authRef && m_authRef->isValid());
}

bool HXAuthorization::canAuthorize() const
{
    return m_hasGUI || platform::isRoot();
}

// --- Execution

namespace {

HXPrivilegedReply sendRequest(std::shared_ptr<platform::AdminAuthorization> &authRef,
                              const HXPrivilegedRequest &request)
{
    const std::optional<QByteArray> message = authRef->send(request.encoded());
    if (!message) {
        // The runner has gone: the right went with it; the next call asks again.
        authRef.reset();
        return HXPrivilegedReply{kHXPrivilegedToolFailure, {}, {}, {}};
    }
    return HXPrivilegedReply::decoded(*message).value_or(
        HXPrivilegedReply{kHXPrivilegedToolFailure, {}, {}, {}});
}

QString helperFolder()
{
    return HXPath::deletingLastComponent(platform::executablePath());
}

// TOOL with PARAMETERS as one of the requests the privileged side takes: a helper
// tool of this bundle, or the system's touch on one item. None for anything else.
std::optional<HXPrivilegedRequest> requestForTool(const QString &tool, const QStringList &parameters,
                                                  bool async)
{
    HXPrivilegedRequest request;
    request.wait = !async;
    const QString absoluteTool = platform::absoluteItemPath(tool);
    if (HXPath::deletingLastComponent(absoluteTool) == helperFolder() &&
        HXPrivilegedHelperTools().contains(HXPath::lastComponent(absoluteTool))) {
        request.operation = HXPrivilegedOperation::RunHelper;
        request.arguments = QStringList{HXPath::lastComponent(absoluteTool)} + parameters;
        return request;
    }
    const QString noDereference = QStringLiteral("-h");
    if (absoluteTool == HXSystemTools::touch() && parameters.size() >= 2 &&
        parameters.first() == QLatin1String("-c") &&
        (parameters.size() == 2 || (parameters.size() == 3 && parameters[1] == noDereference))) {
        request.operation = HXPrivilegedOperation::Touch;
        request.arguments = QStringList{platform::absoluteItemPath(parameters.last())};
        return request;
    }
    return std::nullopt;
}

}  // namespace

int HXAuthorization::authExecTask(const QString &tool, const QStringList &parameters)
{
    return authExecTask(tool, parameters, true);
}

int HXAuthorization::authExecTask(const QString &tool, const QStringList &parameters, bool async)
{
    if (!QFileInfo::exists(tool)) {
        platform::systemLog(HXFormat(u"Unable to execute task: path %@ doesn't exist", tool));
        return kStatusMissingTool;
    }
    const std::optional<HXPrivilegedRequest> request = requestForTool(tool, parameters, async);
    if (platform::isRoot()) {
        // Touching an item in a user's folder goes through the checked request too;
        // as root the answer is 0 whatever the tool did, as for any other tool.
        if (request && request->operation == HXPrivilegedOperation::Touch) {
            perform(*request);
            return kStatusSuccess;
        }
        if (async)
            HXTaskEx::runTaskAndReturn(tool, parameters);
        else
            HXTaskEx::runTask(tool, parameters);
        return kStatusSuccess;
    }
    if (!request) {
        // Asked for the right all the same: without it the answer stays "not authorized".
        if (!isAuthorized())
            authStart();
        if (!isAuthorized())
            return kStatusNotAuthorized;
        platform::systemLog(
            HXFormat(u"Unable to execute task: %@ is not a tool Mendwell runs as administrator", tool));
        return kHXPrivilegedToolFailure;
    }
    return perform(*request);
}

int HXAuthorization::authExecTask(const QString &tool, const QStringList &parameters, QByteArray *report)
{
    report->clear();
    if (!QFileInfo::exists(tool))
        return authExecTask(tool, parameters, false);
    if (platform::isRoot()) {
        *report = HXTaskEx::dataFromTask(tool, parameters).value_or(QByteArray());
        return kStatusSuccess;
    }
    std::optional<HXPrivilegedRequest> request = requestForTool(tool, parameters, false);
    if (!request || request->operation != HXPrivilegedOperation::RunHelper)
        return authExecTask(tool, parameters, false);
    request->captureOutput = true;
    HXPrivilegedReply reply;
    const int status = perform(*request, &reply);
    *report = reply.output;
    return status;
}

int HXAuthorization::perform(const HXPrivilegedRequest &request, HXPrivilegedReply *reply)
{
    if (platform::isRoot())
        return HXPerformPrivilegedRequest(request, {HXLocalPaths::trashDirectory(), helperFolder()}, reply);
    if (!isAuthorized())
        authStart();
    if (!isAuthorized())
        return kStatusNotAuthorized;
    HXPrivilegedReply received = sendRequest(m_authRef, request);
    const int status = received.status;
    if (reply)
        *reply = std::move(received);
    return status;
}

int HXAuthorization::performFileOperation(HXPrivilegedOperation operation, const QStringList &paths)
{
    HXPrivilegedRequest request;
    request.operation = operation;
    for (const QString &path : paths)
        request.arguments << platform::absoluteItemPath(path);
    return perform(request);
}

bool HXAuthorization::refusesProtected(HXPrivilegedOperation operation, const QString &path)
{
    if (!HXLocalPaths::isProtectedFolder(path))
        return false;
    platform::systemLog(HXProtectedPathRefusal(operation, path));
    return true;
}

// --- File operations

bool HXAuthorization::authRemoveFile(const QString &path)
{
    if (refusesProtected(HXPrivilegedOperation::Remove, path))
        return false;
    // As root the removal was "run", whatever it did, as move and copy report.
    const int status = performFileOperation(HXPrivilegedOperation::Remove, {path});
    return platform::isRoot() || status == kStatusSuccess;
}

bool HXAuthorization::authTrashFile(const QString &path)
{
    return authTrashFile(path, false);
}

bool HXAuthorization::authTrashFile(const QString &path, bool deleteOnRootAccount)
{
    return authTrashFile(path, deleteOnRootAccount, nullptr);
}

bool HXAuthorization::authTrashFile(const QString &path, bool deleteOnRootAccount,
                                    platform::trash::Outcome *trashed)
{
    if (refusesProtected(HXPrivilegedOperation::Trash, path))
        return false;
    const QString name = HXPath::lastComponent(path);
    QString trash = HXLocalPaths::trashDirectory();
    if (platform::isRoot() && !m_userDirectory.isEmpty())
        trash = HXPath::appendingComponent(m_userDirectory, platform::trashFolderInHome());
    if (trash.isEmpty()) {
        // Nobody's Trash to move it to (root with nobody at the console).
        platform::systemLog(QStringLiteral("Error in authMoveFile: new path is null"));
        return false;
    }
    QString destination = HXPath::appendingComponent(trash, name);
    if (itemExists(destination)) {
        // A name without extension ends in a bare "." here; kept as it always was.
        const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMddHHmmss"));
        destination =
            HXPath::deletingExtension(destination) + HXFormat(u"_%@.%@", stamp, HXPath::extension(path));
    }
    // Deliberately the trash destination, not the source: in the root repair mode
    // the delete request leaves the source where it is.
    if (platform::isRoot() && m_userDirectory.isEmpty() && deleteOnRootAccount)
        return authRemoveFile(destination);
    if (!itemExists(path))
        return false;
    HXPrivilegedRequest request;
    request.operation = HXPrivilegedOperation::Trash;
    request.arguments = QStringList{platform::absoluteItemPath(path), HXPath::lastComponent(destination)};
    HXPrivilegedReply reply;
    const int status = perform(request, &reply);
    if (trashed && status == kStatusSuccess && !reply.trashedPath.isEmpty())
        *trashed = platform::trash::Outcome{true, reply.trashedPath, reply.infoPath, 0};
    return platform::isRoot() || status == kStatusSuccess;
}

bool HXAuthorization::authTrashFolderContents(const QString &folder)
{
    return authTrashFolderContents(folder, false);
}

bool HXAuthorization::authTrashFolderContents(const QString &folder, bool deleteOnRootAccount)
{
    if (HXLocalPaths::isProtectedFolder(folder)) {
        platform::systemLog(HXFormat(
            u"Unable to trash folder contents of path %@ because it is a system directory.", folder));
        return false;
    }
    const bool remove = deleteOnRootAccount && m_userDirectory.isEmpty() && platform::isRoot();
    bool allSucceeded = true;
    for (const QString &entry : folderEntries(folder)) {
        const QString item = HXPath::appendingComponent(folder, entry);
        // Removing happens only as root, whose tool runs count as done.
        if (remove)
            performFileOperation(HXPrivilegedOperation::RemoveTree, {item});
        else
            allSucceeded = authTrashFile(item) && allSucceeded;
    }
    return allSucceeded;
}

bool HXAuthorization::authMoveFolderContents(const QString &folder, const QString &destination)
{
    if (HXLocalPaths::isProtectedFolder(folder)) {
        platform::systemLog(
            HXFormat(u"Unable to move contents of path %@ because it is a system directory.", folder));
        return false;
    }
    bool allSucceeded = true;
    for (const QString &entry : folderEntries(folder)) {
        const bool ok = authMoveFile(HXPath::appendingComponent(folder, entry),
                                     HXPath::appendingComponent(destination, entry));
        allSucceeded = allSucceeded && ok;
    }
    return allSucceeded;
}

bool HXAuthorization::authMoveFile(const QString &source, const QString &destination)
{
    if (source.isEmpty()) {
        platform::systemLog(QStringLiteral("Error in authMoveFile: old path is null"));
        return false;
    }
    if (destination.isEmpty()) {
        platform::systemLog(QStringLiteral("Error in authMoveFile: new path is null"));
        return false;
    }
    if (refusesProtected(HXPrivilegedOperation::Move, source))
        return false;
    if (!itemExists(source))
        return false;
    const int status = performFileOperation(HXPrivilegedOperation::Move, {source, destination});
    return platform::isRoot() || status == kStatusSuccess;
}

bool HXAuthorization::authCopyFile(const QString &source, const QString &destination)
{
    if (source.isEmpty()) {
        platform::systemLog(QStringLiteral("Error in authCopyFile: old path is null"));
        return false;
    }
    if (destination.isEmpty()) {
        platform::systemLog(QStringLiteral("Error in authCopyFile: new path is null"));
        return false;
    }
    if (!itemExists(source))
        return false;
    const int status = performFileOperation(HXPrivilegedOperation::Copy, {source, destination});
    return platform::isRoot() || status == kStatusSuccess;
}

bool HXAuthorization::authCreateDir(const QString &path)
{
    const int status = performFileOperation(HXPrivilegedOperation::MakeFolder, {path});
    if (platform::isRoot())
        return true;
    if (status != kStatusSuccess)
        return false;
    ::usleep(500);
    return true;
}

bool HXAuthorization::authSetRequireAdminPassword(bool required)
{
    HXPrivilegedRequest request;
    request.operation = HXPrivilegedOperation::RequireAdminPassword;
    request.arguments = QStringList{required ? QStringLiteral("1") : QStringLiteral("0")};
    return perform(request) == kStatusSuccess;
}
