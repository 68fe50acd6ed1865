#include "platform/ConfinedPath.h"

#include <QFile>
#include <QStringList>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

namespace {

constexpr int kMaxLinks = 40;

// A link in FOLDER may be followed only when nobody but root can have made or
// changed it.
bool isTrustedLink(int folder, const struct stat &link)
{
    struct stat folderInfo {};
    if (::fstat(folder, &folderInfo) != 0)
        return false;
    const bool folderGuarded =
        (folderInfo.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (folderInfo.st_mode & S_ISVTX) != 0;
    return link.st_uid == 0 && folderInfo.st_uid == 0 && folderGuarded;
}

struct Component {
    QString name;
    bool fromTrustedLink = false;
};

QList<Component> componentsOf(const QStringList &names, bool fromTrustedLink)
{
    QList<Component> list;
    for (const QString &name : names)
        list.append({name, fromTrustedLink});
    return list;
}

// Walks COMPONENTS from the root and returns the descriptor of the folder they name.
int walk(QList<Component> components, QString *error)
{
    auto fail = [error](const QString &reason) {
        if (error)
            *error = reason;
        return -1;
    };
    int current = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (current < 0)
        return fail(QString::fromLocal8Bit(std::strerror(errno)));
    int links = 0;
    while (!components.isEmpty()) {
        const Component component = components.takeFirst();
        if (component.name.isEmpty() || component.name == QLatin1String("."))
            continue;
        if (component.name == QLatin1String("..")) {
            // Only a link root made may climb: its target is as much a given as
            // the path itself. The caller's own path may not.
            const int parent =
                component.fromTrustedLink ? ::openat(current, "..", O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
            ::close(current);
            if (parent < 0)
                return fail(QStringLiteral("\"..\" is not allowed"));
            current = parent;
            continue;
        }
        const QByteArray name = QFile::encodeName(component.name);
        struct stat info {};
        if (::fstatat(current, name.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
            const int saved = errno;
            ::close(current);
            return fail(QString::fromLocal8Bit(std::strerror(saved)));
        }
        if (S_ISLNK(info.st_mode)) {
            char target[4096];
            const ssize_t length = isTrustedLink(current, info) && ++links <= kMaxLinks
                                       ? ::readlinkat(current, name.constData(), target, sizeof target - 1)
                                       : -1;
            if (length <= 0) {
                ::close(current);
                return fail(QStringLiteral("symbolic link %1 is not followed").arg(component.name));
            }
            const QString text = QFile::decodeName(QByteArray(target, length));
            if (text.startsWith(QLatin1Char('/'))) {
                ::close(current);
                current = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
                if (current < 0)
                    return fail(QString::fromLocal8Bit(std::strerror(errno)));
            }
            components = componentsOf(text.split(QLatin1Char('/')), true) + components;
            continue;
        }
        if (!S_ISDIR(info.st_mode)) {
            ::close(current);
            return fail(QStringLiteral("%1 is not a folder").arg(component.name));
        }
        // O_NOFOLLOW: a link put in place since the check fails here.
        const int next = ::openat(current, name.constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const int saved = errno;
        ::close(current);
        if (next < 0)
            return fail(QString::fromLocal8Bit(std::strerror(saved)));
        current = next;
    }
    // The descriptor handed to tools is a plain one, so that every tool can use it.
    const int folder = ::openat(current, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int saved = errno;
    ::close(current);
    if (folder < 0)
        return fail(QString::fromLocal8Bit(std::strerror(saved)));
    return folder;
}

}  // namespace

std::optional<ConfinedPath> ConfinedPath::open(const QString &path, QString *error)
{
    if (!path.startsWith(QLatin1Char('/'))) {
        if (error)
            *error = QStringLiteral("not an absolute path");
        return std::nullopt;
    }
    QStringList components = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    while (!components.isEmpty() && components.last() == QLatin1String("."))
        components.removeLast();
    if (components.isEmpty() || components.last() == QLatin1String("..")) {
        if (error)
            *error = QStringLiteral("no item named");
        return std::nullopt;
    }
    const QString name = components.takeLast();
    const int folder = walk(componentsOf(components, false), error);
    if (folder < 0)
        return std::nullopt;
    return ConfinedPath(folder, name);
}

std::optional<ConfinedPath> ConfinedPath::openFolder(const QString &path, QString *error)
{
    if (!path.startsWith(QLatin1Char('/'))) {
        if (error)
            *error = QStringLiteral("not an absolute path");
        return std::nullopt;
    }
    const int folder = walk(componentsOf(path.split(QLatin1Char('/'), Qt::SkipEmptyParts), false), error);
    if (folder < 0)
        return std::nullopt;
    return ConfinedPath(folder, QString());
}

ConfinedPath::ConfinedPath(ConfinedPath &&other) noexcept
    : m_folder(other.m_folder), m_name(std::move(other.m_name))
{
    other.m_folder = -1;
}

ConfinedPath &ConfinedPath::operator=(ConfinedPath &&other) noexcept
{
    if (this != &other) {
        if (m_folder >= 0)
            ::close(m_folder);
        m_folder = other.m_folder;
        m_name = std::move(other.m_name);
        other.m_folder = -1;
    }
    return *this;
}

ConfinedPath::~ConfinedPath()
{
    if (m_folder >= 0)
        ::close(m_folder);
}

QString ConfinedPath::childPath() const
{
    QString path = QStringLiteral("/proc/self/fd/%1").arg(m_folder);
    if (!m_name.isEmpty())
        path += QLatin1Char('/') + m_name;
    return path;
}

bool ConfinedPath::exists() const
{
    if (m_name.isEmpty())
        return true;
    struct stat info {};
    return ::fstatat(m_folder, QFile::encodeName(m_name).constData(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

bool ConfinedPath::isRealFolder() const
{
    if (m_name.isEmpty())
        return true;
    struct stat info {};
    return ::fstatat(m_folder, QFile::encodeName(m_name).constData(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(info.st_mode);
}

}  // namespace platform
