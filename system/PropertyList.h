#pragma once

// Property lists as macOS writes them (XML or binary), as a tree of QVariants:
// QVariantMap (dictionary), QVariantList (array), QString, qint64 / quint64
// (integers; quint64 only above the signed range), double, bool, QDateTime (UTC),
// QByteArray (data).

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <optional>
#include <sys/types.h>

namespace PropertyList {

// Parses XML or binary property-list data; an invalid QVariant when it is neither.
QVariant fromData(const QByteArray &data);

// Reads a property-list file; a missing, unreadable or malformed file reads as an
// invalid QVariant.
QVariant readFile(const QString &path);

// Reads a file whose top level is a dictionary; anything else reads as empty.
QVariantMap readDictionary(const QString &path);

// The same for a file in a tree its user can change while root reads: the path is
// walked without following a link the user could have planted, and the file
// itself is never a link.
QVariantMap readDictionaryInUsersTree(const QString &path);

// Serialises a value tree as XML; an empty array when a value has no plist form.
QByteArray toXml(const QVariant &value);

// Writes the value tree as XML through a temporary file in the same folder and a
// rename, so readers see either the old file or the whole new one.
bool writeXmlFile(const QString &path, const QVariant &value);

// The same for a file in a tree its user can change while root writes: the
// folder is reached (and made, for OWNER, when missing) without following a link
// the user could have planted, the new file is made there and renamed over the
// old one, and as root it is then given to OWNER.
bool writeXmlFileInUsersTree(const QString &path, const QVariant &value, std::optional<uid_t> owner);

}  // namespace PropertyList
