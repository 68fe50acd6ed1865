#pragma once

// Named extended attributes of files, by the names macOS gives them
// ("com.apple.FinderInfo"); the platform decides where such names live. Links
// are followed.

#include <QByteArray>
#include <QString>

#include <cstddef>

namespace platform {

// The size of attribute NAME of PATH in bytes, or -1 with the error number in
// *ERROR.
long long extendedAttributeSize(const QString &path, const QString &name, int *error);

// Reads attribute NAME into BUFFER, at most SIZE bytes. The number of bytes
// read, or -1 with the error number in *ERROR (a value longer than SIZE is an
// error, not a partial read).
long long readExtendedAttribute(const QString &path, const QString &name, void *buffer, std::size_t size,
                                int *error);

// Creates or replaces attribute NAME with VALUE. Returns 0 or the error number.
int writeExtendedAttribute(const QString &path, const QString &name, const QByteArray &value);

}  // namespace platform
