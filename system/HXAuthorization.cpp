#include "system/HXAuthorization.h"

#include "diagnostics/HXLog.h"
#include "fs/HXTrash.h"
#include "platform/Platform.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXPrivilegedRequest.h"
#include "system/HXTaskEx.h"

#include <QDataStream>
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

QString absolute(const QString &path)
{
    return path.startsWith(QLatin1Char('/')) ? path : QDir::current().absoluteFilePath(path);
}

// Entries of FOLDER in the order the file system lists them; none when unreadable.
QStringList folderEntries(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                                  QDir::Unsorted);
}

// In the freedesktop trash (".../files/<name>" beside ".../info") an item needs
// its record, or the desktop cannot list or restore it.
QString writeTrashRecord(const QString &source, const QString &destination)
{
    const QString filesFolder = HXPath::deletingLastComponent(destination);
    if (HXPath::lastComponent(filesFolder) != QLatin1String("files"))
        return QString();
    const QString infoFolder =
        HXPath::appendingComponent(HXPath::deletingLastComponent(filesFolder), QStringLiteral("info"));
    if (!QFileInfo(infoFolder).isDir())
        return QString();
    const QString record = HXPath::appendingComponent(infoFolder, HXPath::lastComponent(destination) +
                                                                      QStringLiteral(".trashinfo"));
    QFile file(record);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        return QString();
    file.write(HXTrash::trashInfo(absolute(source), QDateTime::currentDateTime()));
    file.close();
    if (platform::isRoot()) {
        struct stat owner {};
        if (::stat(QFile::encodeName(infoFolder).constData(), &owner) == 0) [[maybe_unused]]
            const int ignored = ::lchown(QFile::encodeName(record).constData(), owner.st_uid, owner.st_gid);
    }
    return record;
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

int sendRequest(std::shared_ptr<platform::AdminAuthorization> &authRef, const HXPrivilegedRequest &request)
{
    const std::optional<QByteArray> reply = authRef->send(request.encoded());
    if (!reply) {
        // The runner has gone: the right went with it; the next call asks again.
        authRef.reset();
        return kHXPrivilegedToolFailure;
    }
    qint32 status = kHXPrivilegedToolFailure;
    QDataStream(*reply) >> status;
    return status;
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
    HXPrivilegedRequest request;
    request.tool = absolute(tool);
    request.arguments = parameters;
    request.wait = !async;
    if (platform::isRoot()) {
        if (async)
            HXTaskEx::runTaskAndReturn(tool, parameters);
        else
            HXTaskEx::runTask(tool, parameters);
        return kStatusSuccess;
    }
    if (!isAuthorized())
        authStart();
    if (!isAuthorized())
        return kStatusNotAuthorized;
    return sendRequest(m_authRef, request);
}

int HXAuthorization::execFileOperation(int kind, const QStringList &paths)
{
    HXPrivilegedRequest request;
    request.operation = static_cast<HXPrivilegedOperation>(kind);
    for (const QString &path : paths)
        request.arguments << absolute(path);
    QString tool;
    switch (request.operation) {
    case HXPrivilegedOperation::Remove:
    case HXPrivilegedOperation::RemoveTree:
        tool = HXSystemTools::rm();
        break;
    case HXPrivilegedOperation::Move:
        tool = HXSystemTools::mv();
        break;
    case HXPrivilegedOperation::Copy:
        tool = HXSystemTools::cp();
        break;
    default:
        tool = HXSystemTools::mkdir();
        break;
    }
    if (!QFileInfo::exists(tool)) {
        platform::systemLog(HXFormat(u"Unable to execute task: path %@ doesn't exist", tool));
        return kStatusMissingTool;
    }
    // File operations wait for their tool, so a caller finds the result on disk
    // when the call returns.
    if (platform::isRoot())
        return HXPerformPrivilegedRequest(request);
    if (!isAuthorized())
        authStart();
    if (!isAuthorized())
        return kStatusNotAuthorized;
    return sendRequest(m_authRef, request);
}

// --- File operations

bool HXAuthorization::authRemoveFile(const QString &path)
{
    if (HXLocalPaths::isPathSystemDirectory(path, true)) {
        platform::systemLog(HXFormat(u"Unable to delete path %@ because it is a system directory.", path));
        return false;
    }
    return execFileOperation(static_cast<int>(HXPrivilegedOperation::Remove), {path}) == kStatusSuccess;
}

bool HXAuthorization::authTrashFile(const QString &path)
{
    return authTrashFile(path, false);
}

bool HXAuthorization::authTrashFile(const QString &path, bool deleteOnRootAccount)
{
    if (HXLocalPaths::isPathSystemDirectory(path, true)) {
        platform::systemLog(HXFormat(u"Unable to trash path %@ because it is a system directory.", path));
        return false;
    }
    const QString name = HXPath::lastComponent(path);
    QString destination = HXPath::appendingComponent(HXLocalPaths::trashDirectory(), name);
    if (platform::isRoot() && !m_userDirectory.isEmpty())
        destination = HXPath::appendingComponent(
            HXPath::appendingComponent(m_userDirectory, platform::trashFolderInHome()), name);
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

    // The user's own trash folders are the user's to make.
    if (!platform::isRoot()) {
        const QString filesFolder = HXPath::deletingLastComponent(destination);
        QDir().mkpath(filesFolder);
        if (HXPath::lastComponent(filesFolder) == QLatin1String("files"))
            QDir().mkpath(HXPath::appendingComponent(HXPath::deletingLastComponent(filesFolder),
                                                     QStringLiteral("info")));
    }
    const QString record = writeTrashRecord(path, destination);
    const bool moved = authMoveFile(path, destination);
    if (!record.isEmpty() && (!moved || !itemExists(destination)))
        QFile::remove(record);
    return moved;
}

bool HXAuthorization::authTrashFolderContents(const QString &folder)
{
    return authTrashFolderContents(folder, false);
}

bool HXAuthorization::authTrashFolderContents(const QString &folder, bool deleteOnRootAccount)
{
    if (HXLocalPaths::isPathSystemDirectory(folder, true)) {
        platform::systemLog(HXFormat(
            u"Unable to trash folder contents of path %@ because it is a system directory.", folder));
        return false;
    }
    const bool remove = deleteOnRootAccount && m_userDirectory.isEmpty() && platform::isRoot();
    bool allSucceeded = true;
    for (const QString &entry : folderEntries(folder)) {
        const QString item = HXPath::appendingComponent(folder, entry);
        const bool ok = remove ? execFileOperation(static_cast<int>(HXPrivilegedOperation::RemoveTree),
                                                   {item}) == kStatusSuccess
                               : authTrashFile(item);
        allSucceeded = allSucceeded && ok;
    }
    return allSucceeded;
}

bool HXAuthorization::authMoveFolderContents(const QString &folder, const QString &destination)
{
    if (HXLocalPaths::isPathSystemDirectory(folder, true)) {
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
    if (HXLocalPaths::isPathSystemDirectory(source, true)) {
        platform::systemLog(HXFormat(u"Unable to move path %@ because it is a system directory.", source));
        return false;
    }
    if (!itemExists(source))
        return false;
    const int status =
        execFileOperation(static_cast<int>(HXPrivilegedOperation::Move), {source, destination});
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
    const int status =
        execFileOperation(static_cast<int>(HXPrivilegedOperation::Copy), {source, destination});
    return platform::isRoot() || status == kStatusSuccess;
}

bool HXAuthorization::authCreateDir(const QString &path)
{
    const int status = execFileOperation(static_cast<int>(HXPrivilegedOperation::MakeFolder), {path});
    if (platform::isRoot())
        return true;
    if (status != kStatusSuccess)
        return false;
    ::usleep(500);
    return true;
}
