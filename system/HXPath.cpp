#include "system/HXPath.h"

namespace HXPath {

namespace {

QString withoutTrailingSlashes(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

}  // namespace

QString appendingComponent(const QString &base, const QString &component)
{
    QString tail = component;
    while (tail.startsWith(QLatin1Char('/')))
        tail.remove(0, 1);
    tail = withoutTrailingSlashes(tail);
    if (base.isEmpty())
        return tail;
    QString head = withoutTrailingSlashes(base);
    if (tail.isEmpty())
        return head;
    if (!head.endsWith(QLatin1Char('/')))
        head.append(QLatin1Char('/'));
    return head + tail;
}

QString lastComponent(const QString &path)
{
    const QString trimmed = withoutTrailingSlashes(path);
    if (trimmed == QLatin1String("/"))
        return trimmed;
    return trimmed.mid(trimmed.lastIndexOf(QLatin1Char('/')) + 1);
}

QString deletingLastComponent(const QString &path)
{
    const QString trimmed = withoutTrailingSlashes(path);
    const qsizetype slash = trimmed.lastIndexOf(QLatin1Char('/'));
    if (slash < 0)
        return QString();
    if (slash == 0)
        return QStringLiteral("/");
    return trimmed.left(slash);
}

QString extension(const QString &path)
{
    const QString name = lastComponent(path);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return dot > 0 ? name.mid(dot + 1) : QString();
}

QString deletingExtension(const QString &path)
{
    const QString ext = extension(path);
    const QString trimmed = withoutTrailingSlashes(path);
    return ext.isEmpty() ? trimmed : trimmed.left(trimmed.size() - ext.size() - 1);
}

QStringList components(const QString &path)
{
    QStringList parts;
    if (path.startsWith(QLatin1Char('/')))
        parts.append(QStringLiteral("/"));
    for (const QString &part : path.split(QLatin1Char('/'), Qt::SkipEmptyParts))
        parts.append(part);
    return parts;
}

}  // namespace HXPath
