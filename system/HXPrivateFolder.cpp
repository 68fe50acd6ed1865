#include "system/HXPrivateFolder.h"

#include "platform/Accounts.h"
#include "platform/Platform.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

// Names tried before giving up: among 62^10, repeated clashes mean something
// other than chance is at work.
constexpr int kAttempts = 100;

QString randomSuffix()
{
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    QString suffix;
    for (int i = 0; i < 10; ++i)
        suffix.append(QLatin1Char(kAlphabet[QRandomGenerator::system()->bounded(62)]));
    return suffix;
}

bool isSafeFolder(const QString &path)
{
    struct stat info {};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISDIR(info.st_mode))
        return false;
    if (info.st_uid != 0 && info.st_uid != ::geteuid())
        return false;
    return (info.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (info.st_mode & S_ISVTX) != 0;
}

}  // namespace

bool HXPrivateFolder::isSafeParent(const QString &path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    if (!canonical.startsWith(QLatin1Char('/')) || !isSafeFolder(QStringLiteral("/")))
        return false;
    for (qsizetype slash = canonical.indexOf(QLatin1Char('/'), 1); slash > 0;
         slash = canonical.indexOf(QLatin1Char('/'), slash + 1))
        if (!isSafeFolder(canonical.left(slash)))
            return false;
    return canonical == u"/" || isSafeFolder(canonical);
}

std::optional<HXPrivateFolder> HXPrivateFolder::make(const QString &prefix, int *error)
{
    const QString temporary = HXLocalPaths::tempDirectory();
    if (isSafeParent(temporary))
        return makeIn(temporary, prefix, error);
    return makeIn(QStringLiteral("/tmp"), prefix, error);
}

std::optional<HXPrivateFolder> HXPrivateFolder::makeIn(const QString &parentPath, const QString &prefix,
                                                       int *error)
{
    int failure = EACCES;
    if (isSafeParent(parentPath)) {
        const QString canonical = QFileInfo(parentPath).canonicalFilePath();
        std::optional<platform::Folder> parent = platform::Folder::open(canonical, &failure);
        for (int attempt = 0; parent && attempt < kAttempts; ++attempt) {
            const QString name = prefix + QLatin1Char('.') + randomSuffix();
            if (!parent->makeFolder(name, 0700, &failure)) {
                if (failure == EEXIST)
                    continue;
                break;
            }
            HXPrivateFolder made(std::move(*parent), canonical, name);
            // The process's umask may have taken more than it should.
            failure = made.m_parent.setMode(name, 0700);
            if (failure == 0)
                return made;
            break;
        }
    }
    if (error != nullptr)
        *error = failure;
    return std::nullopt;
}

HXPrivateFolder::HXPrivateFolder(platform::Folder parent, QString parentPath, QString name)
    : m_parent(std::move(parent)), m_name(std::move(name)),
      m_path(HXPath::appendingComponent(parentPath, m_name))
{
}

HXPrivateFolder::HXPrivateFolder(HXPrivateFolder &&other) noexcept
    : m_parent(std::move(other.m_parent)), m_name(std::exchange(other.m_name, QString())),
      m_path(std::exchange(other.m_path, QString()))
{
}

HXPrivateFolder &HXPrivateFolder::operator=(HXPrivateFolder &&other) noexcept
{
    if (this != &other) {
        remove();
        m_parent = std::move(other.m_parent);
        m_name = std::exchange(other.m_name, QString());
        m_path = std::exchange(other.m_path, QString());
    }
    return *this;
}

HXPrivateFolder::~HXPrivateFolder()
{
    remove();
}

QString HXPrivateFolder::pathOf(const QString &name) const
{
    return HXPath::appendingComponent(m_path, name);
}

bool HXPrivateFolder::shareWithGroup(gid_t group) const
{
    // The group first: no moment where another group may read.
    return !m_name.isEmpty() && m_parent.setOwner(m_name, ::geteuid(), group) == 0 &&
           m_parent.setMode(m_name, 0750) == 0;
}

bool HXPrivateFolder::shareWithConsoleUser() const
{
    if (!platform::isRoot())
        return false;
    const std::optional<QString> console = HXLocalPaths::currentConsoleUser();
    const std::optional<platform::Account> account =
        console ? platform::accountNamed(*console) : std::nullopt;
    return account && shareWithGroup(account->gid);
}

void HXPrivateFolder::remove()
{
    if (!m_name.isEmpty())
        m_parent.removeTree(std::exchange(m_name, QString()));
    m_path.clear();
}
