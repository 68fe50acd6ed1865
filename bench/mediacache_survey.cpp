// The media cache preview's count alone: the files a clean-up would move and
// their bytes, as `mendwellctl preview -mediacache` gathers them. For
// bench/mediacache_bench.sh, which times it against `du -s`.

#include "app/HXMediaCache.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const HXMediaCache::Outcome outcome = HXMediaCache::survey({});
    std::printf("%d files, %lld bytes\n", outcome.clearedFiles(),
                static_cast<long long>(outcome.clearedBytes()));
    return 0;
}
