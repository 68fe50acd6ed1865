// Wildcard patterns against names, both UTF-16 (lone surrogates included), split
// at the first newline, checked against the plain dynamic-programming matcher.

#include "fs/HXWildcardMatch.h"
#include "fuzz/FuzzSupport.h"

#include <QList>
#include <QString>

#include <vector>

namespace {

bool reference(const QList<uint> &name, const QList<uint> &pattern)
{
    // matches[t]: whether the pattern so far matches name's first t characters.
    std::vector<char> matches(name.size() + 1, 0);
    matches[0] = 1;
    for (const uint g : pattern) {
        std::vector<char> next(matches.size(), 0);
        for (qsizetype t = 0; t <= name.size(); ++t)
            next[t] = g == '*' ? matches[t] || (t > 0 && next[t - 1])
                               : t > 0 && matches[t - 1] && (g == '?' || g == name[t - 1]);
        matches.swap(next);
    }
    return matches.back();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 2048)  // the reference is quadratic
        return 0;
    const QString input =
        QString::fromUtf16(reinterpret_cast<const char16_t *>(data), static_cast<qsizetype>(size / 2));
    const qsizetype split = input.indexOf(QLatin1Char('\n'));
    const QStringView name = QStringView(input).first(split < 0 ? input.size() : split);
    const QStringView pattern = split < 0 ? QStringView() : QStringView(input).sliced(split + 1);
    FUZZ_CHECK(HXWildcardMatches(name, pattern) == reference(name.toUcs4(), pattern.toUcs4()));
    FUZZ_CHECK(HXWildcardMatches(name, u"*") && HXWildcardMatches(name, u"**"));
    if (!name.contains(QLatin1Char('*')) && !name.contains(QLatin1Char('?')))
        FUZZ_CHECK(HXWildcardMatches(name, name));
    return 0;
}
