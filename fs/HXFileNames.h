#pragma once

// File names a user or a copy may propose, made safe and made unique.

#include <QString>

namespace HXFileManager {

// NAME without a leading ".", outer blanks, "/" or ":"; "." alone becomes "".
QString validateFilename(const QString &name);

// PATH when nothing is there; else "name 2.ext", "name 3.ext", ... in the same
// folder, the first that is free.
QString uniqueFilename(const QString &path);

}  // namespace HXFileManager
