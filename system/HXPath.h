#pragma once

// Path-string operations with the platform's path-component rules: no trailing
// slash except for "/", a component appended with exactly one slash.

#include <QString>
#include <QStringList>

namespace HXPath {

// BASE joined with COMPONENT; either may carry slashes at the seam. An empty base
// yields the component unchanged.
QString appendingComponent(const QString &base, const QString &component);

QString lastComponent(const QString &path);
QString deletingLastComponent(const QString &path);
QString extension(const QString &path);
QString deletingExtension(const QString &path);

// The components of PATH; an absolute path starts with "/".
QStringList components(const QString &path);

}  // namespace HXPath
