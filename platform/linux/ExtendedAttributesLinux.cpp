#include "platform/ExtendedAttributes.h"

#include <QFile>

#include <cerrno>
#include <sys/xattr.h>

namespace platform {

namespace {

// Unprivileged programs may only keep attributes of their own in the user
// namespace; macOS names carry over unchanged inside it.
QByteArray attributeName(const QString &name)
{
    return "user." + name.toUtf8();
}

}  // namespace

long long extendedAttributeSize(const QString &path, const QString &name, int *error)
{
    const ssize_t size =
        ::getxattr(QFile::encodeName(path).constData(), attributeName(name).constData(), nullptr, 0);
    if (size < 0 && error)
        *error = errno;
    return size;
}

long long readExtendedAttribute(const QString &path, const QString &name, void *buffer, std::size_t size,
                                int *error)
{
    const ssize_t read =
        ::getxattr(QFile::encodeName(path).constData(), attributeName(name).constData(), buffer, size);
    if (read < 0 && error)
        *error = errno;
    return read;
}

int writeExtendedAttribute(const QString &path, const QString &name, const QByteArray &value)
{
    const int result = ::setxattr(QFile::encodeName(path).constData(), attributeName(name).constData(),
                                  value.constData(), static_cast<std::size_t>(value.size()), 0);
    return result == 0 ? 0 : errno;
}

}  // namespace platform
