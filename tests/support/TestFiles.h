#pragma once

#include <QString>

// Copies a file or a whole folder (links copied as their targets' contents).
bool copyTree(const QString &from, const QString &to);
