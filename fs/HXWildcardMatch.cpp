#include "fs/HXWildcardMatch.h"

#include <QList>

bool HXWildcardMatches(QStringView name, QStringView pattern)
{
    // Compare whole characters, so "?" matches a character outside the BMP too.
    const QList<uint> text = name.toUcs4();
    const QList<uint> glob = pattern.toUcs4();

    // Greedy match that backtracks only to the last "*": linear in practice and
    // never exponential, whatever the pattern.
    qsizetype t = 0;
    qsizetype g = 0;
    qsizetype starAt = -1;
    qsizetype resumeAt = 0;
    while (t < text.size()) {
        if (g < glob.size() && glob[g] == '*') {
            starAt = g++;
            resumeAt = t;
        } else if (g < glob.size() && (glob[g] == '?' || glob[g] == text[t])) {
            ++g;
            ++t;
        } else if (starAt >= 0) {
            g = starAt + 1;
            t = ++resumeAt;
        } else {
            return false;
        }
    }
    while (g < glob.size() && glob[g] == '*')
        ++g;
    return g == glob.size();
}
