#include "app/audit/HXToolReport.h"

#include "platform/Accounts.h"

#include <QList>
#include <QVariantMap>

namespace HXToolReport {

namespace {

const QByteArray kEnded = QByteArrayLiteral("ended");
const QByteArray kChanged = QByteArrayLiteral("changed");

QByteArray field(const QString &text)
{
    return text.toUtf8().toPercentEncoding();
}

QString text(const QByteArray &field)
{
    return QString::fromUtf8(QByteArray::fromPercentEncoding(field));
}

QByteArray attributes(const platform::ItemAttributes &item)
{
    return QByteArray::number(item.owner) + '\t' + QByteArray::number(item.permissions(), 8) + '\t' +
           (item.immutable ? '1' : '0');
}

QString ownerName(const QByteArray &uid)
{
    return platform::accountNameOf(uid.toUInt()).value_or(QString::fromLatin1(uid));
}

// The lines of OUTPUT that start with KIND and have COUNT fields after it.
QList<QList<QByteArray>> linesOf(const QByteArray &output, const QByteArray &kind, qsizetype count)
{
    QList<QList<QByteArray>> lines;
    for (const QByteArray &line : output.split('\n')) {
        QList<QByteArray> fields = line.split('\t');
        if (fields.size() == count + 1 && fields.first() == kind) {
            fields.removeFirst();
            lines.append(fields);
        }
    }
    return lines;
}

}  // namespace

QByteArray endedProcessLine(const QString &name, pid_t pid, const QString &path, const char *signal)
{
    return kEnded + '\t' + field(name) + '\t' + QByteArray::number(pid) + '\t' + field(path) + '\t' + signal +
           '\n';
}

QByteArray permissionChangeLine(const QString &path, const platform::ItemAttributes &before,
                                const platform::ItemAttributes &after)
{
    return kChanged + '\t' + field(path) + '\t' + attributes(before) + '\t' + attributes(after) + '\n';
}

QVariantList endedProcessesIn(const QByteArray &output)
{
    QVariantList processes;
    for (const QList<QByteArray> &fields : linesOf(output, kEnded, 4))
        processes.append(QVariantMap{{QStringLiteral("name"), text(fields[0])},
                                     {QStringLiteral("pid"), fields[1].toLongLong()},
                                     {QStringLiteral("path"), text(fields[2])},
                                     {QStringLiteral("signal"), QString::fromLatin1(fields[3])}});
    return processes;
}

QVariantList permissionChangesIn(const QByteArray &output)
{
    QVariantList changes;
    for (const QList<QByteArray> &fields : linesOf(output, kChanged, 7))
        changes.append(QVariantMap{{QStringLiteral("path"), text(fields[0])},
                                   {QStringLiteral("ownerBefore"), ownerName(fields[1])},
                                   {QStringLiteral("modeBefore"), QString::fromLatin1(fields[2])},
                                   {QStringLiteral("lockedBefore"), fields[3] == "1"},
                                   {QStringLiteral("ownerAfter"), ownerName(fields[4])},
                                   {QStringLiteral("modeAfter"), QString::fromLatin1(fields[5])},
                                   {QStringLiteral("lockedAfter"), fields[6] == "1"}});
    return changes;
}

}  // namespace HXToolReport
