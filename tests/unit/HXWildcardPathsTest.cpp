#include "fs/HXWildcardMatch.h"
#include "fs/HXWildcardPaths.h"
#include "tests/support/TestFiles.h"

#include <QDir>
#include <QDirIterator>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <unistd.h>

using namespace HXFileManager;
using namespace Qt::Literals::StringLiterals;

namespace {

class WildcardPaths : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    QString path(const QString &relative) const { return m_dir.path() + QLatin1Char('/') + relative; }

    void makeFile(const QString &relative) const { ASSERT_TRUE(disk::write(path(relative))); }
    void makeFolder(const QString &relative) const { ASSERT_TRUE(QDir().mkpath(path(relative))); }

    QTemporaryDir m_dir;
};

}  // namespace

TEST(WildcardMatch, ComparesWholeNamesWithStarAndQuestionMark)
{
    EXPECT_TRUE(HXWildcardMatches(u"com.Adobe.Common.plist", u"com.Adobe.Common*.plist"));
    EXPECT_TRUE(HXWildcardMatches(u"com.Adobe.CommonX.plist", u"com.Adobe.Common*.plist"));
    EXPECT_FALSE(HXWildcardMatches(u"com.adobe.common.plist", u"com.Adobe.Common*.plist"));
    EXPECT_FALSE(HXWildcardMatches(u"com.Adobe.Common.plist.bak", u"com.Adobe.Common*.plist"));
    EXPECT_FALSE(HXWildcardMatches(u"xcom.Adobe.Common.plist", u"com.Adobe.Common*.plist"));

    EXPECT_TRUE(HXWildcardMatches(u"", u"*"));
    EXPECT_TRUE(HXWildcardMatches(u".DS_Store", u"*"));
    EXPECT_FALSE(HXWildcardMatches(u"", u"?"));
    EXPECT_TRUE(HXWildcardMatches(u"a", u"?"));
    EXPECT_FALSE(HXWildcardMatches(u"ab", u"?"));
    EXPECT_TRUE(HXWildcardMatches(u"abc", u"a?c"));
    EXPECT_TRUE(HXWildcardMatches(u"a\U0001F600c", u"a?c"));  // one character, two UTF-16 units
    EXPECT_TRUE(HXWildcardMatches(u"memorybalancer.xml", u"memorybalancer*.xml"));
    EXPECT_TRUE(HXWildcardMatches(u"aXbXbXc", u"a*b*c"));
    EXPECT_FALSE(HXWildcardMatches(u"aXbXbX", u"a*b*c"));
    EXPECT_TRUE(HXWildcardMatches(u"abab", u"*ab"));
    EXPECT_TRUE(HXWildcardMatches(u"abc", u"**c"));
    EXPECT_FALSE(HXWildcardMatches(u"abc", u"abcd"));
    // No character classes or escapes: brackets are plain characters.
    EXPECT_TRUE(HXWildcardMatches(u"[a]", u"[a]"));
    EXPECT_FALSE(HXWildcardMatches(u"a", u"[a]"));
}

TEST(WildcardMatch, PathologicalPatternStaysFast)
{
    const QString name(5000, QLatin1Char('a'));
    const QString pattern =
        QString(40, QLatin1Char('*')).replace(QLatin1String("*"), QLatin1String("a*")) + QLatin1Char('b');
    EXPECT_FALSE(HXWildcardMatches(name, pattern));
}

TEST_F(WildcardPaths, PatternWithoutStarIsReturnedUnlookedAt)
{
    EXPECT_EQ(filesMatchingWildcardPath(u"missing/file?.txt"_s, m_dir.path()),
              QStringList{path(u"missing/file?.txt"_s)});
    EXPECT_EQ(filesMatchingWildcardPath(u"/no/such/thing"_s), QStringList{u"/no/such/thing"_s});
    EXPECT_EQ(decodeWildcardPath(u"missing"_s, m_dir.path()), path(u"missing"_s));
    EXPECT_EQ(decodeWildcardPath(u"/no/such/thing"_s), u"/no/such/thing"_s);
}

TEST_F(WildcardPaths, NoMatchGivesEmptyListAndNoDecodedPath)
{
    makeFile(u"a.txt"_s);
    EXPECT_TRUE(filesMatchingWildcardPath(path(u"x*"_s)).isEmpty());
    EXPECT_EQ(decodeWildcardPath(path(u"x*"_s)), std::nullopt);
    // With a base path the joined pattern stands in for the missing match.
    EXPECT_EQ(decodeWildcardPath(u"x*"_s, m_dir.path()), path(u"x*"_s));
}

TEST_F(WildcardPaths, MatchesWholeNamesCaseSensitivelyIncludingHiddenOnes)
{
    makeFile(u"Preferences/com.Adobe.Common.plist"_s);
    makeFile(u"Preferences/com.adobe.common.plist"_s);
    makeFile(u"Preferences/com.Adobe.Common 2.plist.lock"_s);
    makeFile(u"Preferences/.DS_Store"_s);

    EXPECT_EQ(filesMatchingWildcardPath(path(u"Preferences/com.Adobe.Common*.plist"_s)),
              QStringList{path(u"Preferences/com.Adobe.Common.plist"_s)});
    const QStringList all = filesMatchingWildcardPath(u"Preferences/*"_s, m_dir.path());
    EXPECT_EQ(all.size(), 4);
    EXPECT_TRUE(all.contains(path(u"Preferences/.DS_Store"_s)));
    EXPECT_EQ(filesMatchingWildcardPath(u"Preferences/.DS_Stor?*"_s, m_dir.path()),
              QStringList{path(u"Preferences/.DS_Store"_s)});
}

TEST_F(WildcardPaths, StarsInSeveralComponentsKeepOnlyBranchesThatExist)
{
    makeFile(u"Adobe/Premiere Pro/5.0/Layouts/Editing.xml"_s);
    makeFile(u"Adobe/Premiere Pro/5.0/Layouts/Effects.xml"_s);
    makeFile(u"Adobe/Premiere Pro/5.0/Layouts/notes.txt"_s);
    makeFolder(u"Adobe/Premiere Pro/5.5/Other"_s);
    makeFile(u"Adobe/Premiere Pro/6.0"_s);  // a file where the pattern wants a folder

    QStringList found = filesMatchingWildcardPath(path(u"Adobe/Premiere Pro/*/Layouts/*.xml"_s));
    found.sort();
    EXPECT_EQ(found, (QStringList{path(u"Adobe/Premiere Pro/5.0/Layouts/Editing.xml"_s),
                                  path(u"Adobe/Premiere Pro/5.0/Layouts/Effects.xml"_s)}));

    makeFile(u"Adobe/Premiere Pro/5.5/Adobe Premiere Pro Prefs"_s);
    EXPECT_EQ(filesMatchingWildcardPath(u"Adobe/Premiere Pro/*/Adobe Premiere Pro Prefs"_s, m_dir.path()),
              QStringList{path(u"Adobe/Premiere Pro/5.5/Adobe Premiere Pro Prefs"_s)});
    // The wildcard component also lists the regular file 6.0, which lists nothing.
    EXPECT_EQ(filesMatchingWildcardPath(u"Adobe/Premiere Pro/6*/x"_s, m_dir.path()), QStringList{});
}

TEST_F(WildcardPaths, ResultsFollowTheListingOrderWithinEachFolder)
{
    for (int i = 0; i < 40; ++i)
        makeFile(QStringLiteral("order/item%1.dat").arg(i));
    QStringList listing;
    QDirIterator it(path(u"order"_s), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    while (it.hasNext())
        listing.append(it.next());
    EXPECT_EQ(filesMatchingWildcardPath(u"order/item*.dat"_s, m_dir.path()), listing);
}

TEST_F(WildcardPaths, LinksAreFollowedAndDanglingOnesDropped)
{
    makeFolder(u"real/Layouts"_s);
    makeFile(u"real/Layouts/a.xml"_s);
    ASSERT_EQ(::symlink(path(u"real"_s).toUtf8().constData(), path(u"linked"_s).toUtf8().constData()), 0);
    ASSERT_EQ(::symlink("/nonexistent/target", path(u"dangling"_s).toUtf8().constData()), 0);

    QStringList found = filesMatchingWildcardPath(u"*/Layouts/*.xml"_s, m_dir.path());
    found.sort();
    EXPECT_EQ(found, (QStringList{path(u"linked/Layouts/a.xml"_s), path(u"real/Layouts/a.xml"_s)}));
    EXPECT_FALSE(filesMatchingWildcardPath(u"*"_s, m_dir.path()).contains(path(u"dangling"_s)));
}

TEST_F(WildcardPaths, BasePathRulesAndIgnoredSubfolderSearch)
{
    makeFile(u"x/deep/y/file.txt"_s);
    makeFile(u"x/file.txt"_s);
    // An absolute pattern given with a base path is resolved under the base path.
    EXPECT_EQ(filesMatchingWildcardPath(u"/x/f*.txt"_s, m_dir.path()), QStringList{path(u"x/file.txt"_s)});
    // A relative pattern without base path starts at the root of the file system.
    const QString relative = m_dir.path().mid(1) + u"/x/f*.txt"_s;
    EXPECT_EQ(filesMatchingWildcardPath(relative), QStringList{path(u"x/file.txt"_s)});
    // Searching sub-folders changes nothing.
    EXPECT_EQ(filesMatchingWildcardPath(u"x/*.txt"_s, m_dir.path(), true),
              filesMatchingWildcardPath(u"x/*.txt"_s, m_dir.path(), false));
    EXPECT_EQ(decodeWildcardPath(u"x/f*"_s, m_dir.path()), path(u"x/file.txt"_s));
}
