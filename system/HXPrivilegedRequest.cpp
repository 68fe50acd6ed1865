#include "system/HXPrivilegedRequest.h"

#include "platform/AdminAuthorization.h"
#include "platform/ChildProcess.h"
#include "platform/ConfinedPath.h"
#include "platform/Platform.h"
#include "system/HXFormat.h"
#include "system/HXPath.h"

#include <QDataStream>
#include <QFile>
#include <QIODevice>

#include <sys/stat.h>

#include <memory>
#include <vector>

namespace {

constexpr quint32 kRequestMagic = 0x4d574151;  // "MWAQ"

}  // namespace

QByteArray HXPrivilegedRequest::encoded() const
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_6_0);
    stream << kRequestMagic << static_cast<qint32>(operation) << wait << tool << arguments;
    return bytes;
}

std::optional<HXPrivilegedRequest> HXPrivilegedRequest::decoded(const QByteArray &bytes)
{
    QDataStream stream(bytes);
    stream.setVersion(QDataStream::Qt_6_0);
    quint32 magic = 0;
    qint32 operation = -1;
    HXPrivilegedRequest request;
    stream >> magic >> operation >> request.wait >> request.tool >> request.arguments;
    if (stream.status() != QDataStream::Ok || magic != kRequestMagic ||
        operation < static_cast<qint32>(HXPrivilegedOperation::Exec) ||
        operation > static_cast<qint32>(HXPrivilegedOperation::MakeFolder))
        return std::nullopt;
    request.operation = static_cast<HXPrivilegedOperation>(operation);
    return request;
}

namespace HXSystemTools {
// Debian keeps the core tools in /bin (merged into /usr/bin) and chown in /bin too.
QString rm()
{
    return QStringLiteral("/bin/rm");
}
QString mv()
{
    return QStringLiteral("/bin/mv");
}
QString cp()
{
    return QStringLiteral("/bin/cp");
}
QString mkdir()
{
    return QStringLiteral("/bin/mkdir");
}
QString touch()
{
    return QStringLiteral("/usr/bin/touch");
}
QString chown()
{
    return QStringLiteral("/bin/chown");
}
}  // namespace HXSystemTools

namespace {

int refuse(const QString &what, const QString &path, const QString &reason)
{
    platform::systemLog(HXFormat(u"Refusing to %@ %@: %@", what, path, reason));
    return kHXPrivilegedToolFailure;
}

// Runs TOOL on confined paths (their folders inherited by the tool) and waits
// for it unless asked not to.
int runTool(const QString &tool, const QStringList &arguments, const std::vector<int> &folders, bool wait)
{
    auto child = std::make_shared<platform::ChildProcess>(tool, arguments);
    child->setStandardInput(platform::ChildProcess::Stream::Null);
    child->setStandardOutput(platform::ChildProcess::Stream::Null);
    child->setStandardError(platform::ChildProcess::Stream::Null);
    child->setInheritedDescriptors(folders);
    child->setWorkingDirectory(QStringLiteral("/"));
    QString error;
    if (!child->launch(&error)) {
        platform::systemLog(HXFormat(u"Unable to run %@: %@", tool, error));
        return kHXPrivilegedToolFailure;
    }
    if (wait)
        child->waitUntilExit();
    return 0;
}

// Where SOURCE goes for "mv SOURCE DESTINATION" or "cp -R SOURCE DESTINATION":
// into DESTINATION when it is a real folder, else DESTINATION itself. A link in
// its place is replaced, never followed.
std::optional<platform::ConfinedPath> targetFor(const platform::ConfinedPath &source,
                                                const QString &destination, QString *error)
{
    std::optional<platform::ConfinedPath> target = platform::ConfinedPath::open(destination, error);
    if (target && target->isRealFolder()) {
        return platform::ConfinedPath::open(HXPath::appendingComponent(destination, source.name()), error);
    }
    return target;
}

int performFileOperation(const HXPrivilegedRequest &request)
{
    const QStringList &paths = request.arguments;
    QString error;
    switch (request.operation) {
    case HXPrivilegedOperation::Remove:
    case HXPrivilegedOperation::RemoveTree: {
        if (paths.size() != 1)
            return kHXPrivilegedToolFailure;
        const auto item = platform::ConfinedPath::open(paths[0], &error);
        if (!item)
            return refuse(QStringLiteral("remove"), paths[0], error);
        const QStringList flags = request.operation == HXPrivilegedOperation::Remove
                                      ? QStringList{QStringLiteral("-Rdf")}
                                      : QStringList{QStringLiteral("-R"), QStringLiteral("-f")};
        return runTool(HXSystemTools::rm(), flags + QStringList{item->childPath()},
                       {item->folderDescriptor()}, true);
    }
    case HXPrivilegedOperation::Move:
    case HXPrivilegedOperation::Copy: {
        if (paths.size() != 2)
            return kHXPrivilegedToolFailure;
        const bool move = request.operation == HXPrivilegedOperation::Move;
        const QString verb = move ? QStringLiteral("move") : QStringLiteral("copy");
        const auto source = platform::ConfinedPath::open(paths[0], &error);
        if (!source)
            return refuse(verb, paths[0], error);
        const auto target = targetFor(*source, paths[1], &error);
        if (!target)
            return refuse(verb, paths[1], error);
        // -T: the target is exactly the confined path, never a folder a link at
        // its place points to. cp replaces what is there instead of writing
        // through it.
        const QStringList flags =
            move ? QStringList{QStringLiteral("-f"), QStringLiteral("-T")}
                 : QStringList{QStringLiteral("-f"), QStringLiteral("-p"), QStringLiteral("-R"),
                               QStringLiteral("-T"), QStringLiteral("--remove-destination")};
        return runTool(move ? HXSystemTools::mv() : HXSystemTools::cp(),
                       flags + QStringList{source->childPath(), target->childPath()},
                       {source->folderDescriptor(), target->folderDescriptor()}, true);
    }
    case HXPrivilegedOperation::MakeFolder: {
        if (paths.size() != 1 || !paths[0].startsWith(QLatin1Char('/')))
            return kHXPrivilegedToolFailure;
        // Confine the deepest folder that exists; mkdir makes the rest below it.
        QStringList missing;
        QString existing = paths[0];
        std::optional<platform::ConfinedPath> base;
        while (true) {
            base = platform::ConfinedPath::openFolder(existing, &error);
            // Only a missing folder is made; anything else in its place (a link
            // above all) refuses the whole path.
            struct stat info {};
            if (base || existing == QLatin1String("/") ||
                ::lstat(QFile::encodeName(existing).constData(), &info) == 0)
                break;
            missing.prepend(HXPath::lastComponent(existing));
            existing = HXPath::deletingLastComponent(existing);
            if (existing.isEmpty())
                existing = QStringLiteral("/");
        }
        if (!base)
            return refuse(QStringLiteral("create"), paths[0], error);
        if (missing.contains(QStringLiteral("..")))
            return refuse(QStringLiteral("create"), paths[0], QStringLiteral("\"..\" is not allowed"));
        QString childPath = base->childPath();
        for (const QString &component : missing)
            childPath = HXPath::appendingComponent(childPath, component);
        return runTool(HXSystemTools::mkdir(), {QStringLiteral("-p"), childPath}, {base->folderDescriptor()},
                       true);
    }
    case HXPrivilegedOperation::Exec:
        break;
    }
    return kHXPrivilegedToolFailure;
}

}  // namespace

int HXPerformPrivilegedRequest(const HXPrivilegedRequest &request)
{
    if (request.operation == HXPrivilegedOperation::Exec)
        return runTool(request.tool, request.arguments, {}, request.wait);
    return performFileOperation(request);
}

int HXPrivilegedRunnerMain(int input, int output)
{
    if (!platform::isRoot())
        return 1;
    if (!platform::writeMessage(output, QByteArray(platform::AdminAuthorization::kReadyMessage)))
        return 1;
    while (const std::optional<QByteArray> message = platform::readMessage(input)) {
        const std::optional<HXPrivilegedRequest> request = HXPrivilegedRequest::decoded(*message);
        const qint32 status = request ? HXPerformPrivilegedRequest(*request) : kHXPrivilegedToolFailure;
        QByteArray reply;
        QDataStream(&reply, QIODevice::WriteOnly) << status;
        if (!platform::writeMessage(output, reply))
            return 1;
    }
    return 0;
}
