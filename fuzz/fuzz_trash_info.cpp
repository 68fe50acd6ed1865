// Nothing reads .trashinfo records back (a restore goes by the run record), so
// the writer is what is checked: for any path, the record has its three lines
// and its Path= decodes back to the path.

#include "fuzz/FuzzSupport.h"
#include "platform/Trash.h"

#include <QDateTime>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString path = QLatin1Char('/') + QString::fromUtf8(reinterpret_cast<const char *>(data),
                                                              static_cast<qsizetype>(size));
    const QList<QByteArray> lines =
        platform::trash::trashInfo(path, QDateTime(QDate(2024, 2, 29), QTime(12, 0))).split('\n');
    FUZZ_CHECK(lines.size() == 4 && lines[0] == "[Trash Info]" && lines[1].startsWith("Path=") &&
               lines[2] == "DeletionDate=2024-02-29T12:00:00" && lines[3].isEmpty());
    FUZZ_CHECK(QString::fromUtf8(QByteArray::fromPercentEncoding(lines[1].sliced(5))) == path);
    FUZZ_CHECK(platform::trash::encodedPath(path) == lines[1].sliced(5));
    return 0;
}
