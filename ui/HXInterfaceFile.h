#pragma once

// Interface files: Qt Designer files in a bundle's Resources, read at run time so
// that a missing or broken file fails the way a missing nib does. The suite's own
// view classes named in a file are built here.

#include "system/HXBundle.h"

#include <QString>

class QWidget;

namespace HXInterfaceFile {

// The top-level widget of NAME.ui in BUNDLE's Resources, a child of PARENT when
// one is given; none when the file is missing or cannot be read.
QWidget *load(const HXBundle &bundle, const QString &name, QWidget *parent = nullptr);

}  // namespace HXInterfaceFile
