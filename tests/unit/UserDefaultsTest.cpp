#include "system/HXUserDefaults.h"
#include "system/PropertyList.h"
#include "tests/support/TestFiles.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

class UserDefaultsTest : public ::testing::Test {
protected:
    QString prefs() const { return m_dir.path() + u"/Library/Preferences"_s; }
    QString file() const { return prefs() + u"/com.example.test.plist"_s; }

    QTemporaryDir m_dir;
};

TEST_F(UserDefaultsTest, StoredValuesWinOverRegisteredOnesAndTheFileHoldsOnlyStoredOnes)
{
    HXUserDefaults defaults(file());
    defaults.registerDefaults({{u"SUCheckAtStartup"_s, true}, {u"shouldTrash"_s, 0}});
    EXPECT_TRUE(defaults.boolForKey(u"SUCheckAtStartup"_s));
    EXPECT_EQ(defaults.integerForKey(u"shouldTrash"_s), 0);
    EXPECT_FALSE(QFile::exists(file())) << "registering writes nothing";

    // The Preferences folder does not exist yet: the first write creates it.
    ASSERT_TRUE(defaults.setBool(false, u"SUCheckAtStartup"_s));
    ASSERT_TRUE(defaults.setInteger(3, u"shouldTrash"_s));
    EXPECT_FALSE(defaults.boolForKey(u"SUCheckAtStartup"_s));
    EXPECT_EQ(defaults.integerForKey(u"shouldTrash"_s), 3);

    const QVariantMap onDisk = PropertyList::readDictionary(file());
    EXPECT_EQ(onDisk.size(), 2);
    EXPECT_EQ(onDisk.value(u"SUCheckAtStartup"_s).typeId(), QMetaType::Bool);
    EXPECT_EQ(onDisk.value(u"shouldTrash"_s).toLongLong(), 3);

    ASSERT_TRUE(defaults.removeObjectForKey(u"SUCheckAtStartup"_s));
    EXPECT_TRUE(defaults.boolForKey(u"SUCheckAtStartup"_s)) << "back to the registered value";
    EXPECT_FALSE(PropertyList::readDictionary(file()).contains(u"SUCheckAtStartup"_s));
    EXPECT_FALSE(defaults.objectForKey(u"never"_s).isValid());
}

TEST_F(UserDefaultsTest, BrokenFilesReadAsEmptyAndAreReplacedWholeOnWrite)
{
    ASSERT_TRUE(disk::write(file(), "<?xml version=\"1.0\"?><plist><dict><key>half"));

    HXUserDefaults defaults(file());
    EXPECT_TRUE(defaults.dictionaryRepresentation().isEmpty());
    ASSERT_TRUE(defaults.setObject(u"value"_s, u"launch"_s));
    EXPECT_EQ(PropertyList::readDictionary(file()), (QVariantMap{{u"launch"_s, u"value"_s}}));
}

TEST_F(UserDefaultsTest, OtherProcessesWritesAreSeenOnSynchronizeAndKeptOnWrite)
{
    HXUserDefaults defaults(file());
    ASSERT_TRUE(defaults.setInteger(1, u"launchCount"_s));
    ASSERT_TRUE(PropertyList::writeXmlFile(file(), QVariantMap{{u"launchCount"_s, 7}}));
    EXPECT_EQ(defaults.integerForKey(u"launchCount"_s), 1) << "cached until synchronised";
    defaults.synchronize();
    EXPECT_EQ(defaults.integerForKey(u"launchCount"_s), 7);

    // A write goes to the file as it is now: the other process's keys stay.
    ASSERT_TRUE(PropertyList::writeXmlFile(file(), QVariantMap{{u"launchCount"_s, 8}, {u"other"_s, 1}}));
    ASSERT_TRUE(defaults.setBool(true, u"shouldTrash"_s));
    ASSERT_TRUE(PropertyList::writeXmlFile(file(), QVariantMap{{u"launchCount"_s, 9}}));
    ASSERT_TRUE(defaults.removeObjectForKey(u"shouldTrash"_s));
    EXPECT_EQ(PropertyList::readDictionary(file()), (QVariantMap{{u"launchCount"_s, 9}}));
}

TEST_F(UserDefaultsTest, ConcurrentWritersLoseNoKey)
{
    HXUserDefaults defaults(file());
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&defaults, t] {
            for (int i = 0; i < 25; ++i)
                defaults.setInteger(i, u"key-%1-%2"_s.arg(t).arg(i));
        });
    }
    for (std::thread &writer : writers)
        writer.join();
    EXPECT_EQ(PropertyList::readDictionary(file()).size(), 100);
}

TEST_F(UserDefaultsTest, OtherDomainsAreReadOneKeyAtATime)
{
    ASSERT_TRUE(QDir().mkpath(prefs()));
    ASSERT_TRUE(PropertyList::writeXmlFile(prefs() + u"/com.lanternfish.global.plist"_s,
                                           QVariantMap{{u"growlDisabled"_s, true}}));
    const auto disabled =
        HXUserDefaults::valueForKey(u"growlDisabled"_s, u"com.lanternfish.global"_s, prefs());
    ASSERT_TRUE(disabled.has_value());
    EXPECT_TRUE(disabled->toBool());
    EXPECT_FALSE(HXUserDefaults::valueForKey(u"disable-logging"_s, u"com.lanternfish.global"_s, prefs()));
    EXPECT_FALSE(HXUserDefaults::valueForKey(u"growlDisabled"_s, u"com.lanternfish.absent"_s, prefs()));
}

TEST(UserDefaultsValues, TruthFollowsTheFoundationReading)
{
    for (const QVariant &yes : {QVariant(true), QVariant::fromValue<qint64>(2), QVariant(u"YES"_s),
                                QVariant(u"true"_s), QVariant(u"1"_s)})
        EXPECT_TRUE(HXUserDefaults::boolFromValue(yes)) << yes.toString().toStdString();
    for (const QVariant &no :
         {QVariant(u"no"_s), QVariant::fromValue<qint64>(0), QVariant(), QVariant(QByteArray("1"))})
        EXPECT_FALSE(HXUserDefaults::boolFromValue(no)) << no.toString().toStdString();
}

TEST(UserDefaultsValues, StandardDefaultsLiveInTheProcessOwnPreferences)
{
    const QString path = HXUserDefaults::standardUserDefaults().path();
    EXPECT_TRUE(path.endsWith(u"/Library/Preferences/com.lanternfish.Mendwell.plist"_s)) << qPrintable(path);
    EXPECT_EQ(path, HXUserDefaults::ownPreferencesFolder() + u"/com.lanternfish.Mendwell.plist"_s);
}

}  // namespace
