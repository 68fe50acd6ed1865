#pragma once

// Settings kept as property-list dictionaries in a Preferences folder, one file
// per domain ("<domain>.plist"). The standard user defaults are the program's own
// domain in the Preferences folder of the process's own home (never rebased into
// the console user's home when running as root). A missing or unreadable file
// counts as empty; every change writes the whole file atomically. Thread-safe.
//
// Below its own values the standard user defaults read the program's settings for
// every user of this machine: its domain in the machine's Preferences folder
// (/Library/Preferences), which the administrators' group may write.

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <mutex>
#include <optional>

class HXUserDefaults {
public:
    // The program's own domain, com.lanternfish.Mendwell.
    static HXUserDefaults &standardUserDefaults();

    // A store backed by the property-list file at PATH.
    explicit HXUserDefaults(const QString &path);

    HXUserDefaults(const HXUserDefaults &) = delete;
    HXUserDefaults &operator=(const HXUserDefaults &) = delete;

    // The stored value, else the registered one; an invalid QVariant when neither.
    QVariant objectForKey(const QString &key) const;
    bool boolForKey(const QString &key) const;
    qint64 integerForKey(const QString &key) const;
    QString stringForKey(const QString &key) const;
    // Stored values only, without the registered ones.
    QVariantMap dictionaryRepresentation() const;

    // Stores VALUE under KEY and writes the file; false when the file could not be
    // written (the value is still kept for this process).
    bool setObject(const QVariant &value, const QString &key);
    bool setBool(bool value, const QString &key);
    bool setInteger(qint64 value, const QString &key);
    bool removeObjectForKey(const QString &key);

    // The program's setting KEY for any user of this machine; false when the
    // machine's file could not be written (the caller is no administrator).
    static bool setValueForAnyUser(const QVariant &value, const QString &key);
    // The machine-wide switch of the password guard at start (1 or 0), the one
    // key the administrator's runner writes for a client.
    static constexpr const char *kRequireAdminPassword = "requireAdminPassword";
    static QString anyUserPath();

    // Fallback values for keys the file does not hold; never written to the file.
    void registerDefaults(const QVariantMap &defaults);

    // Reads the file again, so changes made by other processes become visible.
    void synchronize();

    QString path() const;
    // Moves the store to another file (a test's temporary folder, for instance);
    // the values are read from there on next use.
    void setPath(const QString &path);

    // Where the file of DOMAIN lies in PREFERENCESFOLDER, e.g.
    // ".../Library/Preferences/com.lanternfish.global.plist".
    static QString pathForDomain(const QString &domain, const QString &preferencesFolder);
    // The Preferences folder of the process's own home.
    static QString ownPreferencesFolder();

    // The whole dictionary of DOMAIN in PREFERENCESFOLDER (by default the user's
    // Preferences folder, which is the console user's when running as root).
    static QVariantMap persistentDomain(const QString &domain, const QString &preferencesFolder = QString());
    // One key of DOMAIN; none when the file or the key is missing.
    static std::optional<QVariant> valueForKey(const QString &key, const QString &domain,
                                               const QString &preferencesFolder = QString());

    // The truth of a property-list value as the Foundation reads it: booleans and
    // numbers by value, strings "YES"/"true"/non-zero numbers as true.
    static bool boolFromValue(const QVariant &value);
    // True when VALUE is a boolean or a number (never a string) equal to NUMBER,
    // as the platform compares numbers (a boolean is 0 or 1).
    static bool isNumberEqualTo(const QVariant &value, double number);

    // A switch KEY of the suite-wide preferences ("com.lanternfish.global"), read
    // afresh: set only by the string "1", true, or a number equal to true.
    static bool isSuiteSwitchSet(const QString &key);

private:
    void loadLocked() const;
    void reloadLocked() const;
    bool writeLocked();

    mutable std::mutex m_mutex;
    QString m_path;
    // The machine's layer below the own values; standard defaults only. Read with
    // the own file, and again on synchronize.
    QString m_anyUserPath;
    mutable QVariantMap m_anyUserValues;
    mutable bool m_loaded = false;
    mutable QVariantMap m_values;
    QVariantMap m_registered;
};
