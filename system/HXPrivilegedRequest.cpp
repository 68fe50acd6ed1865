#include "system/HXPrivilegedRequest.h"

#include "platform/AdminAuthorization.h"
#include "platform/ChildProcess.h"
#include "platform/Folder.h"
#include "platform/Platform.h"
#include "platform/Trash.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXUserDefaults.h"
#include "system/PropertyList.h"

#include <QStringDecoder>
#include <QFileInfo>
#include <QIODevice>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr quint32 kRequestMagic = 0x4d574152;  // "MWAR"
constexpr quint32 kReplyMagic = 0x4d575250;    // "MWRP"
constexpr quint32 kWaitFlag = 1;
constexpr quint32 kCaptureFlag = 2;

bool isAbsolutePath(const QString &path)
{
    return path.startsWith(QLatin1Char('/')) && !path.contains(QChar(u'\0'));
}

bool isPlainName(const QString &name)
{
    return !name.isEmpty() && !name.contains(QLatin1Char('/')) && !name.contains(QChar(u'\0')) &&
           name != QLatin1String(".") && name != QLatin1String("..");
}

}  // namespace

const QStringList &HXPrivilegedHelperTools()
{
    static const QStringList tools{QStringLiteral("permissiontool"), QStringLiteral("trashtool"),
                                   QStringLiteral("killtool")};
    return tools;
}

bool HXPrivilegedRequest::isWellFormed() const
{
    const QStringList &a = arguments;
    if (captureOutput && (operation != HXPrivilegedOperation::RunHelper || !wait))
        return false;
    switch (operation) {
    case HXPrivilegedOperation::Remove:
    case HXPrivilegedOperation::RemoveTree:
    case HXPrivilegedOperation::MakeFolder:
    case HXPrivilegedOperation::Touch:
        return a.size() == 1 && isAbsolutePath(a[0]);
    case HXPrivilegedOperation::Move:
    case HXPrivilegedOperation::Copy:
        return a.size() == 2 && isAbsolutePath(a[0]) && isAbsolutePath(a[1]);
    case HXPrivilegedOperation::Trash:
        return a.size() == 2 && isAbsolutePath(a[0]) && isPlainName(a[1]);
    case HXPrivilegedOperation::RunHelper:
        if (a.isEmpty() || !HXPrivilegedHelperTools().contains(a[0]))
            return false;
        for (const QString &argument : a)
            if (argument.contains(QChar(u'\0')))
                return false;
        return true;
    case HXPrivilegedOperation::RequireAdminPassword:
        return a.size() == 1 && (a[0] == QLatin1String("1") || a[0] == QLatin1String("0"));
    }
    return false;
}

// The wire form: magic, operation, flags (wait, capture output), argument count,
// then each argument as its UTF-8 length and bytes; integers big-endian. A reply
// is its magic, the status, the trashed path, the record and the output, each
// string or data as its length and bytes. Decoding checks every
// length against what is left, so no message can make the runner allocate more
// than the message itself.
namespace {

void appendNumber(QByteArray &bytes, quint32 value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.append(static_cast<char>((value >> shift) & 0xff));
}

struct Reader {
    const QByteArray &bytes;
    qsizetype position = 0;

    std::optional<quint32> number()
    {
        if (bytes.size() - position < 4)
            return std::nullopt;
        quint32 value = 0;
        for (int i = 0; i < 4; ++i)
            value = (value << 8) | static_cast<unsigned char>(bytes[position + i]);
        position += 4;
        return value;
    }
    std::optional<QByteArray> chunk(quint32 length)
    {
        if (static_cast<quint64>(bytes.size() - position) < length)
            return std::nullopt;
        const QByteArray part = bytes.mid(position, length);
        position += length;
        return part;
    }
    std::optional<QByteArray> chunk()
    {
        const std::optional<quint32> length = number();
        return length ? chunk(*length) : std::nullopt;
    }
    std::optional<QString> text()
    {
        const std::optional<QByteArray> bytes = chunk();
        if (!bytes)
            return std::nullopt;
        QStringDecoder decoder(QStringDecoder::Utf8);
        QString decoded = decoder.decode(*bytes);
        if (decoder.hasError())
            return std::nullopt;
        return decoded;
    }
};

void appendChunk(QByteArray &bytes, const QByteArray &chunk)
{
    appendNumber(bytes, static_cast<quint32>(chunk.size()));
    bytes.append(chunk);
}

}  // namespace

QByteArray HXPrivilegedRequest::encoded() const
{
    QByteArray bytes;
    appendNumber(bytes, kRequestMagic);
    appendNumber(bytes, static_cast<quint32>(operation));
    appendNumber(bytes, (wait ? kWaitFlag : 0) | (captureOutput ? kCaptureFlag : 0));
    appendNumber(bytes, static_cast<quint32>(arguments.size()));
    for (const QString &argument : arguments)
        appendChunk(bytes, argument.toUtf8());
    return bytes;
}

std::optional<HXPrivilegedRequest> HXPrivilegedRequest::decoded(const QByteArray &bytes)
{
    Reader reader{bytes};
    const std::optional<quint32> magic = reader.number();
    const std::optional<quint32> operation = reader.number();
    const std::optional<quint32> flags = reader.number();
    std::optional<quint32> count = reader.number();
    if (!count || *magic != kRequestMagic ||
        *operation > static_cast<quint32>(HXPrivilegedOperation::RequireAdminPassword) ||
        (*flags & ~(kWaitFlag | kCaptureFlag)) != 0)
        return std::nullopt;
    HXPrivilegedRequest request;
    request.operation = static_cast<HXPrivilegedOperation>(*operation);
    request.wait = (*flags & kWaitFlag) != 0;
    request.captureOutput = (*flags & kCaptureFlag) != 0;
    for (; *count > 0; --*count) {
        const std::optional<QString> argument = reader.text();
        if (!argument)
            return std::nullopt;
        request.arguments.append(*argument);
    }
    if (reader.position != bytes.size() || !request.isWellFormed())
        return std::nullopt;
    return request;
}

QByteArray HXPrivilegedReply::encoded() const
{
    QByteArray bytes;
    appendNumber(bytes, kReplyMagic);
    appendNumber(bytes, static_cast<quint32>(status));
    appendChunk(bytes, trashedPath.toUtf8());
    appendChunk(bytes, infoPath.toUtf8());
    appendChunk(bytes, output.left(kMaximumOutput));
    return bytes;
}

std::optional<HXPrivilegedReply> HXPrivilegedReply::decoded(const QByteArray &bytes)
{
    Reader reader{bytes};
    const std::optional<quint32> magic = reader.number();
    const std::optional<quint32> status = reader.number();
    std::optional<QString> trashedPath = reader.text();
    std::optional<QString> infoPath = reader.text();
    std::optional<QByteArray> output = reader.chunk();
    // A field that fails to read leaves the reader past some of its bytes, and the
    // fields after it may still read: every one is checked.
    if (!trashedPath || !infoPath || !output || *magic != kReplyMagic || reader.position != bytes.size() ||
        output->size() > kMaximumOutput)
        return std::nullopt;
    HXPrivilegedReply reply;
    reply.status = static_cast<qint32>(*status);
    reply.trashedPath = std::move(*trashedPath);
    reply.infoPath = std::move(*infoPath);
    reply.output = std::move(*output);
    return reply;
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

QString HXProtectedPathRefusal(HXPrivilegedOperation operation, const QString &path)
{
    switch (operation) {
    case HXPrivilegedOperation::Remove:
    case HXPrivilegedOperation::RemoveTree:
        return HXFormat(u"Unable to delete path %@ because it is a system directory.", path);
    case HXPrivilegedOperation::Move:
        return HXFormat(u"Unable to move path %@ because it is a system directory.", path);
    case HXPrivilegedOperation::Trash:
        return HXFormat(u"Unable to trash path %@ because it is a system directory.", path);
    default:
        return QString();
    }
}

namespace {

int refuse(const QString &what, const QString &path, int error)
{
    platform::systemLog(
        HXFormat(u"Refusing to %@ %@: %@", what, path, QString::fromLocal8Bit(std::strerror(error))));
    return kHXPrivilegedToolFailure;
}

// Where SOURCENAME goes for "mv SOURCE DESTINATION" or "cp -R SOURCE
// DESTINATION": into DESTINATION when it is a folder, else DESTINATION itself.
// A link in its place is replaced, never followed (unless root made it).
std::optional<platform::Item> targetFor(const QString &sourceName, const QString &destination, int *error)
{
    if (std::optional<platform::Folder> folder = platform::Folder::open(destination))
        return platform::Item{std::move(*folder), sourceName};
    return platform::Item::open(destination, error);
}

// Across file systems: what is at the target goes, then a copy, then the source.
int moveAcross(const platform::Item &source, const platform::Item &target)
{
    if (target.exists())
        if (const int error = target.folder.removeTree(target.name))
            return error;
    if (const int error = source.folder.copyTree(source.name, target.folder, target.name)) {
        target.folder.removeTree(target.name);
        return error;
    }
    return source.folder.removeTree(source.name);
}

// The lines written to FD until its other end closes, as far as they fit in
// LIMIT bytes; the rest is read and dropped so the writer never blocks.
QByteArray readLinesToEnd(int fd, qsizetype limit)
{
    QByteArray kept;
    bool cut = false;
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        const qsizetype room = limit - kept.size();
        cut = cut || count > room;
        kept.append(buffer, std::min<qsizetype>(count, room));
    }
    if (cut)
        kept.truncate(kept.lastIndexOf('\n') + 1);
    return kept;
}

int runHelper(const HXPrivilegedRequest &request, const QString &helperFolder, QByteArray *output)
{
    const QStringList &arguments = request.arguments;
    const QString tool = HXPath::appendingComponent(helperFolder, arguments.first());
    // Only a tool nobody but root can have placed or changed is run as root.
    int error = 0;
    const std::optional<platform::Item> item = platform::Item::open(tool, &error);
    const std::optional<struct stat> info = item ? item->info() : std::nullopt;
    const std::optional<struct stat> folder = item ? item->folder.info() : std::nullopt;
    if (!info || !folder || !S_ISREG(info->st_mode) || info->st_uid != 0 || (info->st_mode & 022) != 0 ||
        folder->st_uid != 0 || (folder->st_mode & 022) != 0)
        return refuse(QStringLiteral("run"), tool, info ? EPERM : (error ? error : ENOENT));
    auto child = std::make_shared<platform::ChildProcess>(tool, arguments.mid(1));
    child->setStandardInput(platform::ChildProcess::Stream::Null);
    child->setStandardOutput(request.captureOutput ? platform::ChildProcess::Stream::Pipe
                                                   : platform::ChildProcess::Stream::Null);
    child->setWorkingDirectory(QStringLiteral("/"));
    QString reason;
    if (!child->launch(&reason)) {
        platform::systemLog(HXFormat(u"Unable to run %@: %@", tool, reason));
        return kHXPrivilegedToolFailure;
    }
    if (request.captureOutput) {
        const QByteArray written =
            readLinesToEnd(child->standardOutputReadEnd(), HXPrivilegedReply::kMaximumOutput);
        child->closeStandardOutput();
        if (output)
            *output = written;
    }
    if (request.wait)
        child->waitUntilExit();
    return 0;
}

int perform(const HXPrivilegedRequest &request, const HXPrivilegedContext &context, HXPrivilegedReply &reply)
{
    const QStringList &paths = request.arguments;
    int error = 0;
    switch (request.operation) {
    case HXPrivilegedOperation::Remove:
    case HXPrivilegedOperation::RemoveTree: {
        const std::optional<platform::Item> item = platform::Item::open(paths[0], &error);
        if (!item)
            return refuse(QStringLiteral("remove"), paths[0], error);
        item->folder.removeTree(item->name);
        return 0;
    }
    case HXPrivilegedOperation::Move:
    case HXPrivilegedOperation::Copy: {
        const bool move = request.operation == HXPrivilegedOperation::Move;
        const QString verb = move ? QStringLiteral("move") : QStringLiteral("copy");
        const std::optional<platform::Item> source = platform::Item::open(paths[0], &error);
        if (!source || !source->exists())
            return refuse(verb, paths[0], source ? ENOENT : error);
        const std::optional<platform::Item> target = targetFor(source->name, paths[1], &error);
        if (!target)
            return refuse(verb, paths[1], error);
        if (move) {
            if (source->folder.rename(source->name, target->folder, target->name, true) == EXDEV)
                moveAcross(*source, *target);
            return 0;
        }
        // cp -f: what is in the way goes first; the copy never writes through it.
        const std::optional<struct stat> existing = target->info();
        if (existing && !S_ISDIR(existing->st_mode))
            target->folder.removeEntry(target->name);
        source->folder.copyTree(source->name, target->folder, target->name);
        return 0;
    }
    case HXPrivilegedOperation::MakeFolder:
        if (!platform::Folder::openMakingPath(paths[0], 0755, std::nullopt, &error))
            return refuse(QStringLiteral("create"), paths[0], error);
        return 0;
    case HXPrivilegedOperation::Trash: {
        if (context.trashFilesFolder.isEmpty())
            return refuse(QStringLiteral("trash"), paths[0], ENOENT);
        const platform::trash::Outcome outcome =
            platform::trash::moveToTrashAs(paths[0], context.trashFilesFolder, paths[1]);
        reply.trashedPath = outcome.trashedPath;
        reply.infoPath = outcome.infoPath;
        return outcome.trashed ? 0 : refuse(QStringLiteral("trash"), paths[0], outcome.error);
    }
    case HXPrivilegedOperation::Touch: {
        const std::optional<platform::Item> item = platform::Item::open(paths[0], &error);
        if (!item)
            return refuse(QStringLiteral("touch"), paths[0], error);
        if (item->exists())
            item->folder.touch(item->name);
        return 0;
    }
    case HXPrivilegedOperation::RunHelper:
        return runHelper(request, context.helperFolder, &reply.output);
    case HXPrivilegedOperation::RequireAdminPassword: {
        // The file is the runner's own choice; the other settings in it stay.
        const QString path = HXUserDefaults::anyUserPath();
        QVariantMap settings = PropertyList::readDictionary(path);
        settings.insert(QString::fromLatin1(HXUserDefaults::kRequireAdminPassword),
                        qint64{paths[0] == QLatin1String("1") ? 1 : 0});
        errno = 0;
        if (!PropertyList::writeXmlFileInUsersTree(path, settings, std::nullopt))
            return refuse(QStringLiteral("write"), path, errno != 0 ? errno : EIO);
        return 0;
    }
    }
    return kHXPrivilegedToolFailure;
}

// The user whose rights the runner was started with (pkexec names him), and the
// trash of that user.
QString requestingUsersTrash()
{
    const QByteArray uid = qgetenv("PKEXEC_UID");
    bool ok = false;
    const uint value = uid.toUInt(&ok);
    if (ok) {
        if (const std::optional<QString> home =
                platform::homeDirectoryOfUser(platform::userNameOfUid(value).value_or(QString())))
            return HXPath::appendingComponent(*home, platform::trashFolderInHome());
        return QString();
    }
    return HXLocalPaths::trashDirectory();
}

}  // namespace

int HXPerformPrivilegedRequest(const HXPrivilegedRequest &request, const HXPrivilegedContext &context,
                               HXPrivilegedReply *reply)
{
    HXPrivilegedReply ignored;
    HXPrivilegedReply &result = reply ? *reply : ignored;
    result = HXPrivilegedReply();
    result.status = kHXPrivilegedToolFailure;
    if (!request.isWellFormed())
        return result.status;
    // The protected-folder rule again, here where the rights are: under any spelling.
    const QString refusal = HXProtectedPathRefusal(request.operation, request.arguments.value(0));
    if (!refusal.isEmpty() && HXLocalPaths::isProtectedFolder(request.arguments.value(0))) {
        platform::systemLog(refusal);
        return result.status;
    }
    result.status = perform(request, context, result);
    return result.status;
}

int HXPrivilegedRunnerMain(int input, int output)
{
    if (!platform::isRoot())
        return 1;
    HXPrivilegedContext context;
    context.trashFilesFolder = requestingUsersTrash();
    context.helperFolder = HXPath::deletingLastComponent(platform::executablePath());
    if (!platform::writeMessage(output, QByteArray(platform::AdminAuthorization::kReadyMessage)))
        return 1;
    while (const std::optional<QByteArray> message = platform::readMessage(input)) {
        const std::optional<HXPrivilegedRequest> request = HXPrivilegedRequest::decoded(*message);
        if (!request)
            platform::systemLog(QStringLiteral("Refusing a request that is not one Mendwell sends"));
        HXPrivilegedReply reply;
        reply.status = kHXPrivilegedToolFailure;
        if (request)
            HXPerformPrivilegedRequest(*request, context, &reply);
        if (!platform::writeMessage(output, reply.encoded()))
            return 1;
    }
    return 0;
}
