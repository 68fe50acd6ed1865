// What killtool and permissiontool report, as the application reads it; an ended
// process read back from the line written for it is the same.

#include "app/audit/HXToolReport.h"
#include "fuzz/FuzzSupport.h"

#include <QVariantMap>

#include <limits>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray output(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    HXToolReport::permissionChangesIn(output);
    for (const QVariant &entry : HXToolReport::endedProcessesIn(output)) {
        const QVariantMap process = entry.toMap();
        const qint64 pid = process.value("pid").toLongLong();
        const QByteArray signal = process.value("signal").toString().toLatin1();
        // The writer takes a pid_t and the signal's C name.
        if (pid < std::numeric_limits<pid_t>::min() || pid > std::numeric_limits<pid_t>::max() ||
            signal.contains('\0'))
            continue;
        const QByteArray line =
            HXToolReport::endedProcessLine(process.value("name").toString(), static_cast<pid_t>(pid),
                                           process.value("path").toString(), signal.constData());
        FUZZ_CHECK(HXToolReport::endedProcessesIn(line) == QVariantList{process});
    }
    return 0;
}
