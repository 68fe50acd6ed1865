#include "system/PropertyList.h"
#include "tests/support/PlistBytes.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSize>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <limits>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

QVariantMap sampleTree()
{
    QVariantMap nested{{u"flag"_s, false}, {u"list"_s, QVariantList{1, u"two"_s}}};
    return {
        {u"string"_s, u"Grüße & <tags>"_s},
        {u"negative"_s, QVariant::fromValue<qint64>(-42)},
        {u"smallest"_s, QVariant::fromValue<qint64>(std::numeric_limits<qint64>::min())},
        {u"huge"_s, QVariant::fromValue<quint64>(std::numeric_limits<quint64>::max())},
        {u"real"_s, 2.5},
        {u"yes"_s, true},
        {u"date"_s, QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC)},
        {u"before2001"_s, QDateTime::fromSecsSinceEpoch(631152000, Qt::UTC)},
        {u"data"_s, QByteArray("\x00\x01\xff", 3)},
        {u"nested"_s, nested},
    };
}

void expectSameTree(const QVariantMap &read)
{
    EXPECT_EQ(read.value(u"string"_s).toString(), u"Grüße & <tags>"_s);
    EXPECT_EQ(read.value(u"negative"_s).typeId(), QMetaType::LongLong);
    EXPECT_EQ(read.value(u"negative"_s).toLongLong(), -42);
    EXPECT_EQ(read.value(u"smallest"_s).toLongLong(), std::numeric_limits<qint64>::min());
    EXPECT_EQ(read.value(u"huge"_s).typeId(), QMetaType::ULongLong);
    EXPECT_EQ(read.value(u"huge"_s).toULongLong(), std::numeric_limits<quint64>::max());
    EXPECT_DOUBLE_EQ(read.value(u"real"_s).toDouble(), 2.5);
    EXPECT_EQ(read.value(u"yes"_s).typeId(), QMetaType::Bool);
    EXPECT_EQ(read.value(u"date"_s).toDateTime().toSecsSinceEpoch(), 1700000000);
    EXPECT_EQ(read.value(u"before2001"_s).toDateTime().toSecsSinceEpoch(), 631152000);
    EXPECT_EQ(read.value(u"data"_s).toByteArray(), QByteArray("\x00\x01\xff", 3));
    const QVariantMap nested = read.value(u"nested"_s).toMap();
    EXPECT_FALSE(nested.value(u"flag"_s).toBool());
    EXPECT_EQ(nested.value(u"list"_s).toList().value(1).toString(), u"two"_s);
}

int levelsOf(QVariant value)
{
    int levels = 0;
    for (; value.typeId() == QMetaType::QVariantList; ++levels)
        value = value.toList().value(0);
    return levels;
}

QString damageOf(const QByteArray &data)
{
    QString damage;
    EXPECT_FALSE(PropertyList::fromData(data, &damage).isValid());
    return damage;
}

const QString kTooDeep = u"nested deeper than 128 levels"_s;

}  // namespace

TEST(PropertyList, ReadsBinaryAndXmlWrittenElsewhere)
{
    const QByteArray xml = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                           "<key>disable-logging</key><string>1</string>"
                           "<key>n</key><integer>-7</integer>"
                           "<key>when</key><date>2001-01-01T00:00:10Z</date></dict></plist>";
    const QVariantMap fromXml = PropertyList::fromData(xml).toMap();
    EXPECT_EQ(fromXml.value(u"disable-logging"_s).toString(), u"1"_s);
    EXPECT_EQ(fromXml.value(u"n"_s).toLongLong(), -7);
    EXPECT_EQ(fromXml.value(u"when"_s).toDateTime().toSecsSinceEpoch(), 978307210);

    // The same document as the binary form macOS writes for settings files.
    const QByteArray bytes = binaryOf(xml);
    ASSERT_TRUE(bytes.startsWith("bplist00"));
    const QVariantMap fromBinary = PropertyList::fromData(bytes).toMap();
    EXPECT_EQ(fromBinary.value(u"n"_s).toLongLong(), -7);
    EXPECT_EQ(fromBinary.value(u"when"_s).toDateTime().toSecsSinceEpoch(), 978307210);
}

TEST(PropertyList, BadFilesReadAsEmpty)
{
    QTemporaryDir dir;
    auto write = [&](const char *name, const QByteArray &bytes) {
        QFile file(dir.filePath(QString::fromUtf8(name)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return file.fileName();
    };
    EXPECT_TRUE(PropertyList::readDictionary(dir.filePath(u"missing.plist"_s)).isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(write("empty.plist", QByteArray())).isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(write("garbage.plist", "not a property list at all")).isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(write("cut.plist", "<?xml version=\"1.0\"?><plist><dict><key>a"))
                    .isEmpty());
    EXPECT_TRUE(
        PropertyList::readDictionary(write("cutbin.plist", QByteArray("bplist00\xd1\x01", 10))).isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(write("array.plist", PropertyList::toXml(QVariantList{1, 2})))
                    .isEmpty());
    EXPECT_FALSE(PropertyList::readFile(dir.filePath(u"array.plist"_s)).toList().isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(dir.path()).isEmpty());  // a folder is unreadable
}

TEST(PropertyList, WriteFailsCleanly)
{
    QTemporaryDir dir;
    EXPECT_FALSE(PropertyList::writeXmlFile(dir.filePath(u"no/such/folder/x.plist"_s), QVariantMap{}));
    // A value with no property-list form writes nothing and keeps the old file.
    const QString path = dir.filePath(u"keep.plist"_s);
    ASSERT_TRUE(PropertyList::writeXmlFile(path, QVariantMap{{u"a"_s, 1}}));
    EXPECT_FALSE(PropertyList::writeXmlFile(path, QVariantMap{{u"bad"_s, QVariant::fromValue(QSize(1, 2))}}));
    EXPECT_EQ(PropertyList::readDictionary(path).value(u"a"_s).toLongLong(), 1);
    // Nor does a list too large for any reader: it could not be read back.
    const QString large(PropertyList::kMaxSize, u'x');
    EXPECT_FALSE(PropertyList::writeXmlFile(path, QVariantMap{{u"a"_s, large}}));
    EXPECT_EQ(PropertyList::readDictionary(path).value(u"a"_s).toLongLong(), 1);
    const QVariantMap fits{{u"a"_s, large.left(PropertyList::kMaxSize - 4096)}};
    ASSERT_TRUE(PropertyList::writeXmlFile(path, fits));
    EXPECT_EQ(PropertyList::readDictionary(path), fits);
}

// libplist recurses once a level when it reads a binary list and whenever it frees
// one (also a malformed XML list it gave up on), so these crashed the reader.
TEST(PropertyListBounds, NestingIsBoundedInBothForms)
{
    using PropertyList::kMaxNesting;
    EXPECT_EQ(levelsOf(PropertyList::fromData(deepXml(kMaxNesting))), kMaxNesting);
    EXPECT_EQ(levelsOf(PropertyList::fromData(deepBinary(kMaxNesting))), kMaxNesting);
    EXPECT_EQ(damageOf(deepXml(kMaxNesting + 1)), kTooDeep);
    EXPECT_EQ(damageOf(deepBinary(kMaxNesting + 1)), kTooDeep);
    // A dictionary level counts as an array level does.
    const QByteArray dictionaries = "<plist>" + QByteArray("<dict><key>k</key>").repeated(kMaxNesting) +
                                    "<true/>" + QByteArray("</dict>").repeated(kMaxNesting) + "</plist>";
    EXPECT_EQ(damageOf(dictionaries), kTooDeep);

    constexpr int kDeep = 200000;
    EXPECT_EQ(damageOf(deepXml(kDeep)), kTooDeep);
    EXPECT_EQ(damageOf(deepXml(kDeep, false)), kTooDeep) << "cut short";
    EXPECT_EQ(damageOf(deepXml(kDeep, false) + "junk"), kTooDeep) << "malformed after the levels";
    EXPECT_EQ(damageOf(deepBinary(kDeep)), kTooDeep);
}

// The XML check follows libplist's reading step by step: depth that libplist would
// build behind its quirks is found, depth it would not build is no reason to refuse.
TEST(PropertyListBounds, XmlLevelsAreCountedAsLibplistReadsThem)
{
    const QByteArray levels = QByteArray("<array>").repeated(200000);
    const QByteArray closes = QByteArray("</array>").repeated(200000);
    // libplist skips a double-quoted run inside "<?...?>" and "<!DOCTYPE ...>", but
    // not a single-quoted one; an XML parser would see these levels as text.
    const QByteArray hidden[] = {
        "<plist><?x \"?><!-- \"?>" + levels + closes + "<?y \" -->\"?></plist>",
        "<!DOCTYPE plist SYSTEM '>" + levels + closes + "<!-- '><!-- --><plist><dict/></plist>",
        "<!DOCTYPE plist [ \"]>\" ]><plist>" + levels + closes + "</plist>",
        // An empty outermost array still takes what follows it.
        "<array/>" + levels,
        // Attributes, with ">" quoted.
        "<plist version=\"1>\"><array a=\">\">" + levels,
        // Comments and CDATA inside a value are skipped, and the levels follow.
        "<plist><array><string>a<!-- </array> --><![CDATA[</array>]]></string>" + levels,
        // libplist goes on after a second <plist> inside a value.
        "<plist><array><plist>" + levels,
    };
    for (const QByteArray &xml : hidden)
        EXPECT_EQ(damageOf(xml), kTooDeep) << xml.left(60).constData();

    // Levels libplist never builds: inside a comment, inside a string, after the
    // outermost value is complete.
    const QByteArray harmless[] = {
        "<plist><!-- " + levels + " --><dict/></plist>",
        "<plist><dict><key>a</key><string><![CDATA[" + levels + "]]></string></dict></plist>",
        "<plist><dict></dict></plist>" + levels,
        "<plist><dict><key>a</key><string>b</string></dict></plist><plist>" + levels,
    };
    for (const QByteArray &xml : harmless) {
        QString damage;
        EXPECT_EQ(PropertyList::fromData(xml, &damage).typeId(), QMetaType::QVariantMap)
            << xml.left(60).constData() << " " << damage.toStdString();
    }
    EXPECT_EQ(PropertyList::fromData(harmless[1]).toMap().value(u"a"_s).toString().size(), levels.size());
}

TEST(PropertyListBounds, SizeAndValuesAreBounded)
{
    using PropertyList::kMaxSize;
    using PropertyList::kMaxValues;
    const QByteArray list = "<plist><dict><key>a</key><integer>1</integer></dict></plist>";
    QByteArray atLimit = list + QByteArray(kMaxSize - list.size(), ' ');
    EXPECT_EQ(PropertyList::fromData(atLimit).toMap().value(u"a"_s).toInt(), 1);
    EXPECT_EQ(damageOf(atLimit + ' '), u"larger than 16777216 bytes"_s);

    const auto manyTrue = [](qsizetype count) {
        return "<plist><array>" + QByteArray("<true/>").repeated(count - 1) + "</array></plist>";
    };
    EXPECT_EQ(PropertyList::fromData(manyTrue(kMaxValues)).toList().size(), kMaxValues - 1);
    EXPECT_EQ(damageOf(manyTrue(kMaxValues + 1)), u"more than 262144 values"_s);

    // libplist copies a shared object at every reference: 40 levels of two
    // references each to the next would be 2^40 values from 600 bytes.
    const QByteArray doubling = doublingBinary(40);
    ASSERT_LT(doubling.size(), 600);
    EXPECT_EQ(damageOf(doubling), u"more than 262144 values"_s);
    // So does one large string: 40 references to 1 MiB are 40 MiB.
    const QByteArray shared = binaryList(2, [](int i) {
        if (i == 1)
            return "\x5f\x12" + bigEndian(1 << 20, 4) + QByteArray(1 << 20, 'x');
        QByteArray array("\xaf\x10\x28");
        for (int j = 0; j < 40; ++j)
            array += bigEndian(1, 4);
        return array;
    });
    EXPECT_EQ(damageOf(shared), u"larger than 16777216 bytes"_s);
    // A few shared ones read, each copy in place.
    const QVariantList twice = PropertyList::fromData(binaryList(2, [](int i) {
                                   return i == 0 ? arrayOf({1, 1}) : QByteArray("\x51z");
                               })).toList();
    EXPECT_EQ(twice, (QVariantList{u"z"_s, u"z"_s}));
}

TEST(PropertyListBounds, BrokenBinaryListsAreDamaged)
{
    const QString malformed = u"not a property list"_s;
    // A value inside itself: directly, and through two more.
    EXPECT_EQ(damageOf(binaryList(1, [](int) { return arrayOf({0}); })), malformed);
    EXPECT_EQ(damageOf(cyclicBinary(3)), malformed);
    EXPECT_EQ(damageOf(cyclicBinary(200000)), kTooDeep);
    // References and offsets beyond the list.
    EXPECT_EQ(damageOf(binaryList(1, [](int) { return arrayOf({7}); })), malformed);
    QByteArray outside = binaryList(1, [](int) { return QByteArray("\x09"); });
    outside[outside.size() - 1] = '\x7f';
    EXPECT_EQ(damageOf(outside), malformed);

    // A zero character in a string: libplist keeps it, and then fails an assertion
    // (aborting the reader) when the string or key is taken out.
    const QByteArray zero("\x62\x00\x61\x00\x00", 5);
    EXPECT_EQ(damageOf(binaryList(3,
                                  [&](int i) {
                                      return i == 0   ? "\xd1" + bigEndian(1, 4) + bigEndian(2, 4)
                                             : i == 1 ? zero
                                                      : QByteArray("\x09");
                                  })),
              malformed);
    EXPECT_EQ(damageOf(binaryList(2, [&](int i) { return i == 0 ? arrayOf({1}) : zero; })), malformed);
    EXPECT_EQ(damageOf(QByteArray("<plist><array><string>a\0b</string></array></plist>", 50)), malformed);

    // Every shortened form of a real list, and bytes changed at random (the same
    // ones each run): never a crash, and never more than the bounds allow.
    const QByteArray whole = binaryOf(PropertyList::toXml(sampleTree()));
    ASSERT_TRUE(whole.startsWith("bplist00"));
    expectSameTree(PropertyList::fromData(whole).toMap());
    for (qsizetype length = 0; length < whole.size(); ++length)
        EXPECT_FALSE(PropertyList::fromData(whole.left(length)).isValid()) << length;
    QRandomGenerator random(20240601);
    for (int round = 0; round < 5000; ++round) {
        QByteArray changed = whole;
        for (int flips = 1 + random.bounded(3); flips > 0; --flips)
            changed[random.bounded(changed.size())] = static_cast<char>(random.bounded(256));
        PropertyList::fromData(changed);
    }
    // libplist ends an XML list after its outermost value, so only what is cut
    // before that is malformed.
    const QByteArray xml = PropertyList::toXml(sampleTree());
    const qsizetype complete = xml.lastIndexOf("</dict>") + 7;
    for (qsizetype length = 0; length < xml.size(); ++length)
        EXPECT_EQ(PropertyList::fromData(xml.left(length)).isValid(), length >= complete) << length;
}

TEST(PropertyListBounds, LargeBinaryArraysReadInOrder)
{
    // Reading by index walked a binary list's arrays from the start each time.
    plist_t array = plist_new_array();
    for (int i = 0; i < 100000; ++i)
        plist_array_append_item(array, plist_new_uint(static_cast<uint64_t>(i)));
    char *binary = nullptr;
    uint32_t length = 0;
    plist_to_bin(array, &binary, &length);
    plist_free(array);
    QString damage;
    const QVariantList read = PropertyList::fromData(QByteArray(binary, length), &damage).toList();
    plist_to_bin_free(binary);
    ASSERT_EQ(read.size(), 100000) << damage.toStdString();
    for (int i = 0; i < read.size(); i += 9999)
        EXPECT_EQ(read[i].toLongLong(), i);
}

// Every type survives the round trip. Only regular files are read, never through a link at their own name,
// never waiting, and never more than the bound; what is refused reads as missing.
TEST(PropertyListBounds, OnlyRegularFilesAreRead)
{
    QTemporaryDir dir;
    const QString good = dir.filePath(u"good.plist"_s);
    ASSERT_TRUE(PropertyList::writeXmlFile(good, sampleTree()));
    expectSameTree(PropertyList::readDictionary(good));
    expectSameTree(PropertyList::readDictionaryInUsersTree(good));
    // Only the file itself is left: the temporary file was renamed over it.
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{u"good.plist"_s});

    const QString fifo = dir.filePath(u"fifo.plist"_s);
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0644), 0);
    const QString link = dir.filePath(u"link.plist"_s);
    ASSERT_TRUE(QFile::link(good, link));
    const QString huge = dir.filePath(u"huge.plist"_s);
    {
        // Sparse: a valid list and then nothing but zero bytes up to one beyond the bound.
        QFile file(huge);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(PropertyList::toXml(sampleTree()));
        ASSERT_TRUE(file.resize(PropertyList::kMaxSize + 1));
    }
    for (const QString &path : {fifo, link, huge, u"/dev/null"_s, u"/dev/zero"_s, dir.path()}) {
        EXPECT_FALSE(PropertyList::readFile(path).isValid()) << path.toStdString();
        EXPECT_TRUE(PropertyList::readDictionaryInUsersTree(path).isEmpty()) << path.toStdString();
    }
    // The refused files are as they were.
    EXPECT_TRUE(QFileInfo(fifo).exists() && QFileInfo(link).isSymLink());
    expectSameTree(PropertyList::readDictionary(good));
}
