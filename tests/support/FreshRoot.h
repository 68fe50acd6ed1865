#pragma once

// The bubblewrap arguments of a fresh root (bubblewrap's own tmpfs) that holds
// every real top-level folder of the machine except those named in OWN, which the
// caller supplies itself (a bind of its own, a tmpfs). Binding over /Users or
// /Library of the real root instead would make those folders on the machine when
// it has none. /sys comes read-only, /proc and /dev fresh.

#include <QStringList>

QStringList bubblewrapFreshRoot(const QStringList &own);
