#pragma once

// An application bundle: a folder "X.app" holding Contents/Info.plist,
// Contents/MacOS/<executable> and Contents/Resources.

#include <QString>
#include <QVariant>
#include <QVariantMap>

class HXBundle {
public:
    // The bundle that holds the running executable; for an executable outside
    // any bundle, its own folder (with an empty information dictionary).
    static const HXBundle &mainBundle();

    // The bundle folder an executable belongs to: "X.app" when the executable
    // lies in "X.app/Contents/MacOS/", else the executable's folder.
    static QString bundlePathForExecutable(const QString &executablePath);

    explicit HXBundle(QString bundlePath);

    const QString &bundlePath() const { return m_path; }
    const QVariantMap &infoDictionary() const { return m_info; }
    QVariant objectForInfoDictionaryKey(const QString &key) const { return m_info.value(key); }
    QString bundleIdentifier() const;
    // The executable named by CFBundleExecutable; for the main bundle without one,
    // the running executable.
    QString executablePath() const;
    QString resourcePath() const;
    // The application's icon in Resources (CFBundleIconFile); empty when it names
    // none or the file is not there.
    QString iconPath() const;

private:
    QString m_path;
    QVariantMap m_info;
    QString m_runningExecutable;
};
