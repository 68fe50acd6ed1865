#pragma once

// The platform's string wildcard comparison ("isLike"): "*" matches any run of
// characters including none, "?" exactly one character. The pattern covers the
// whole name and letter case counts.

#include <QStringView>

bool HXWildcardMatches(QStringView name, QStringView pattern);
