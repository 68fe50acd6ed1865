#include "system/HXUserDefaults.h"
#include "system/PropertyList.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

class UserDefaultsTest : public ::testing::Test {
protected:
    QString prefs() const { return m_dir.path() + QStringLiteral("/Library/Preferences"); }
    QString file() const { return prefs() + QStringLiteral("/com.example.test.plist"); }

    QTemporaryDir m_dir;
};

TEST_F(UserDefaultsTest, StoredValuesWinOverRegisteredOnesAndTheFileHoldsOnlyStoredOnes)
{
    HXUserDefaults defaults(file());
    defaults.registerDefaults(
        {{QStringLiteral("SUCheckAtStartup"), true}, {QStringLiteral("shouldTrash"), 0}});
    EXPECT_TRUE(defaults.boolForKey(QStringLiteral("SUCheckAtStartup")));
    EXPECT_EQ(defaults.integerForKey(QStringLiteral("shouldTrash")), 0);
    EXPECT_FALSE(QFile::exists(file())) << "registering writes nothing";

    // The Preferences folder does not exist yet: the first write creates it.
    ASSERT_TRUE(defaults.setBool(false, QStringLiteral("SUCheckAtStartup")));
    ASSERT_TRUE(defaults.setInteger(3, QStringLiteral("shouldTrash")));
    EXPECT_FALSE(defaults.boolForKey(QStringLiteral("SUCheckAtStartup")));
    EXPECT_EQ(defaults.integerForKey(QStringLiteral("shouldTrash")), 3);

    const QVariantMap onDisk = PropertyList::readDictionary(file());
    EXPECT_EQ(onDisk.size(), 2);
    EXPECT_EQ(onDisk.value(QStringLiteral("SUCheckAtStartup")).typeId(), QMetaType::Bool);
    EXPECT_EQ(onDisk.value(QStringLiteral("shouldTrash")).toLongLong(), 3);

    ASSERT_TRUE(defaults.removeObjectForKey(QStringLiteral("SUCheckAtStartup")));
    EXPECT_TRUE(defaults.boolForKey(QStringLiteral("SUCheckAtStartup"))) << "back to the registered value";
    EXPECT_FALSE(PropertyList::readDictionary(file()).contains(QStringLiteral("SUCheckAtStartup")));
    EXPECT_FALSE(defaults.objectForKey(QStringLiteral("never")).isValid());
}

TEST_F(UserDefaultsTest, BrokenFilesReadAsEmptyAndAreReplacedWholeOnWrite)
{
    QDir().mkpath(prefs());
    QFile broken(file());
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write("<?xml version=\"1.0\"?><plist><dict><key>half");
    broken.close();

    HXUserDefaults defaults(file());
    EXPECT_TRUE(defaults.dictionaryRepresentation().isEmpty());
    ASSERT_TRUE(defaults.setObject(QStringLiteral("value"), QStringLiteral("launch")));
    EXPECT_EQ(PropertyList::readDictionary(file()),
              (QVariantMap{{QStringLiteral("launch"), QStringLiteral("value")}}));
}

TEST_F(UserDefaultsTest, SynchronizeSeesWhatOtherProcessesWrote)
{
    HXUserDefaults defaults(file());
    ASSERT_TRUE(defaults.setInteger(1, QStringLiteral("launchCount")));
    ASSERT_TRUE(PropertyList::writeXmlFile(file(), QVariantMap{{QStringLiteral("launchCount"), 7}}));
    EXPECT_EQ(defaults.integerForKey(QStringLiteral("launchCount")), 1) << "cached until synchronised";
    defaults.synchronize();
    EXPECT_EQ(defaults.integerForKey(QStringLiteral("launchCount")), 7);
}

TEST_F(UserDefaultsTest, ConcurrentWritersLoseNoKey)
{
    HXUserDefaults defaults(file());
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&defaults, t] {
            for (int i = 0; i < 25; ++i)
                defaults.setInteger(i, QStringLiteral("key-%1-%2").arg(t).arg(i));
        });
    }
    for (std::thread &writer : writers)
        writer.join();
    EXPECT_EQ(PropertyList::readDictionary(file()).size(), 100);
}

TEST_F(UserDefaultsTest, OtherDomainsAreReadOneKeyAtATime)
{
    ASSERT_TRUE(QDir().mkpath(prefs()));
    ASSERT_TRUE(PropertyList::writeXmlFile(prefs() + QStringLiteral("/com.lanternfish.global.plist"),
                                           QVariantMap{{QStringLiteral("growlDisabled"), true}}));
    const auto disabled = HXUserDefaults::valueForKey(QStringLiteral("growlDisabled"),
                                                      QStringLiteral("com.lanternfish.global"), prefs());
    ASSERT_TRUE(disabled.has_value());
    EXPECT_TRUE(disabled->toBool());
    EXPECT_FALSE(HXUserDefaults::valueForKey(QStringLiteral("disable-logging"),
                                             QStringLiteral("com.lanternfish.global"), prefs()));
    EXPECT_FALSE(HXUserDefaults::valueForKey(QStringLiteral("growlDisabled"),
                                             QStringLiteral("com.lanternfish.absent"), prefs()));
}

TEST(UserDefaultsValues, TruthFollowsTheFoundationReading)
{
    EXPECT_TRUE(HXUserDefaults::boolFromValue(true));
    EXPECT_TRUE(HXUserDefaults::boolFromValue(QVariant::fromValue<qint64>(2)));
    EXPECT_TRUE(HXUserDefaults::boolFromValue(QStringLiteral("YES")));
    EXPECT_TRUE(HXUserDefaults::boolFromValue(QStringLiteral("true")));
    EXPECT_TRUE(HXUserDefaults::boolFromValue(QStringLiteral("1")));
    EXPECT_FALSE(HXUserDefaults::boolFromValue(QStringLiteral("no")));
    EXPECT_FALSE(HXUserDefaults::boolFromValue(QVariant::fromValue<qint64>(0)));
    EXPECT_FALSE(HXUserDefaults::boolFromValue(QVariant()));
    EXPECT_FALSE(HXUserDefaults::boolFromValue(QByteArray("1")));
}

TEST(UserDefaultsValues, StandardDefaultsLiveInTheProcessOwnPreferences)
{
    const QString path = HXUserDefaults::standardUserDefaults().path();
    EXPECT_TRUE(path.endsWith(QStringLiteral("/Library/Preferences/com.lanternfish.Mendwell.plist")))
        << qPrintable(path);
    EXPECT_EQ(path,
              HXUserDefaults::ownPreferencesFolder() + QStringLiteral("/com.lanternfish.Mendwell.plist"));
}

}  // namespace
