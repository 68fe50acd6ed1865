#include "system/HXUserDefaults.h"

#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"
#include "system/PropertyList.h"

#include <QDir>
#include <QFileInfo>

namespace {

const QString kOwnDomain = QStringLiteral("com.lanternfish.Mendwell");

}  // namespace

HXUserDefaults &HXUserDefaults::standardUserDefaults()
{
    static HXUserDefaults *const defaults = [] {
        auto *standard = new HXUserDefaults(pathForDomain(kOwnDomain, ownPreferencesFolder()));
        standard->m_anyUserPath = anyUserPath();
        return standard;
    }();
    return *defaults;
}

QString HXUserDefaults::anyUserPath()
{
    return pathForDomain(kOwnDomain, HXLocalPaths::prefsDirectory(false));
}

bool HXUserDefaults::setValueForAnyUser(const QVariant &value, const QString &key)
{
    const QString path = anyUserPath();
    QVariantMap values = PropertyList::readDictionary(path);
    values.insert(key, value);
    const bool written = PropertyList::writeXmlFile(path, values);
    standardUserDefaults().synchronize();
    return written;
}

HXUserDefaults::HXUserDefaults(const QString &path) : m_path(path)
{
}

QString HXUserDefaults::pathForDomain(const QString &domain, const QString &preferencesFolder)
{
    return HXPath::appendingComponent(preferencesFolder, domain + QStringLiteral(".plist"));
}

QString HXUserDefaults::ownPreferencesFolder()
{
    // The process's own home even as root: root's settings are root's own.
    const QString home = HXLocalPaths::ownHomeDirectory();
    return HXPath::appendingComponent(home.isEmpty() ? QStringLiteral("/") : home,
                                      QStringLiteral("Library/Preferences"));
}

QVariantMap HXUserDefaults::persistentDomain(const QString &domain, const QString &preferencesFolder)
{
    const QString folder =
        preferencesFolder.isEmpty() ? HXLocalPaths::prefsDirectory(true) : preferencesFolder;
    if (folder.isEmpty())
        return {};
    // As root, read with the console user's rights: her file may be a link to anywhere.
    const HXActingForUser acting(folder);
    return PropertyList::readDictionary(pathForDomain(domain, folder));
}

std::optional<QVariant> HXUserDefaults::valueForKey(const QString &key, const QString &domain,
                                                    const QString &preferencesFolder)
{
    const QVariantMap values = persistentDomain(domain, preferencesFolder);
    const auto found = values.constFind(key);
    if (found == values.constEnd())
        return std::nullopt;
    return *found;
}

bool HXUserDefaults::isSuiteSwitchSet(const QString &key)
{
    const QVariant value = valueForKey(key, QStringLiteral("com.lanternfish.global")).value_or(QVariant());
    // Stricter than the usual truth values.
    if (value.typeId() == QMetaType::QString)
        return value.toString() == QLatin1String("1");
    return isNumberEqualTo(value, 1);
}

bool HXUserDefaults::isNumberEqualTo(const QVariant &value, double number)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return value.toDouble() == number;
    default:
        return false;
    }
}

bool HXUserDefaults::boolFromValue(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Int:
    case QMetaType::UInt:
        return value.toLongLong() != 0;
    case QMetaType::Double:
        return value.toDouble() != 0.0;
    case QMetaType::QString: {
        const QString text = value.toString().trimmed();
        if (text.compare(QLatin1String("YES"), Qt::CaseInsensitive) == 0 ||
            text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0)
            return true;
        return text.toLongLong() != 0;
    }
    default:
        return false;
    }
}

void HXUserDefaults::loadLocked() const
{
    if (m_loaded)
        return;
    m_values = m_path.isEmpty() ? QVariantMap() : PropertyList::readDictionary(m_path);
    m_anyUserValues = m_anyUserPath.isEmpty() ? QVariantMap() : PropertyList::readDictionary(m_anyUserPath);
    m_loaded = true;
}

bool HXUserDefaults::writeLocked()
{
    if (m_path.isEmpty())
        return false;
    QDir().mkpath(QFileInfo(m_path).absolutePath());
    return PropertyList::writeXmlFile(m_path, m_values);
}

QVariant HXUserDefaults::objectForKey(const QString &key) const
{
    std::lock_guard lock(m_mutex);
    loadLocked();
    const auto stored = m_values.constFind(key);
    if (stored != m_values.constEnd())
        return *stored;
    const auto machine = m_anyUserValues.constFind(key);
    if (machine != m_anyUserValues.constEnd())
        return *machine;
    return m_registered.value(key);
}

bool HXUserDefaults::boolForKey(const QString &key) const
{
    return boolFromValue(objectForKey(key));
}

qint64 HXUserDefaults::integerForKey(const QString &key) const
{
    const QVariant value = objectForKey(key);
    if (value.typeId() == QMetaType::QString)
        return value.toString().trimmed().toLongLong();
    if (value.typeId() == QMetaType::Double)
        return static_cast<qint64>(value.toDouble());
    if (value.typeId() == QMetaType::Bool || value.typeId() == QMetaType::LongLong ||
        value.typeId() == QMetaType::ULongLong || value.typeId() == QMetaType::Int ||
        value.typeId() == QMetaType::UInt)
        return value.toLongLong();
    return 0;
}

QString HXUserDefaults::stringForKey(const QString &key) const
{
    const QVariant value = objectForKey(key);
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}

QVariantMap HXUserDefaults::dictionaryRepresentation() const
{
    std::lock_guard lock(m_mutex);
    loadLocked();
    return m_values;
}

// A change is made to the file as it is now, not to what this process read
// earlier: another process's settings written since stay.
void HXUserDefaults::reloadLocked() const
{
    m_loaded = false;
    loadLocked();
}

bool HXUserDefaults::setObject(const QVariant &value, const QString &key)
{
    if (!value.isValid())
        return removeObjectForKey(key);
    std::lock_guard lock(m_mutex);
    reloadLocked();
    m_values.insert(key, value);
    return writeLocked();
}

bool HXUserDefaults::setBool(bool value, const QString &key)
{
    return setObject(QVariant(value), key);
}

bool HXUserDefaults::setInteger(qint64 value, const QString &key)
{
    return setObject(QVariant(value), key);
}

bool HXUserDefaults::removeObjectForKey(const QString &key)
{
    std::lock_guard lock(m_mutex);
    reloadLocked();
    if (m_values.remove(key) == 0)
        return true;
    return writeLocked();
}

void HXUserDefaults::registerDefaults(const QVariantMap &defaults)
{
    std::lock_guard lock(m_mutex);
    m_registered.insert(defaults);
}

void HXUserDefaults::synchronize()
{
    std::lock_guard lock(m_mutex);
    reloadLocked();
}

QString HXUserDefaults::path() const
{
    std::lock_guard lock(m_mutex);
    return m_path;
}

void HXUserDefaults::setPath(const QString &path)
{
    std::lock_guard lock(m_mutex);
    m_path = path;
    m_loaded = false;
    m_values.clear();
}
