#include "system/PropertyList.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSize>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <limits>

namespace {

QVariantMap sampleTree()
{
    QVariantMap nested{{QStringLiteral("flag"), false},
                       {QStringLiteral("list"), QVariantList{1, QStringLiteral("two")}}};
    return {
        {QStringLiteral("string"), QStringLiteral("Grüße & <tags>")},
        {QStringLiteral("negative"), QVariant::fromValue<qint64>(-42)},
        {QStringLiteral("smallest"), QVariant::fromValue<qint64>(std::numeric_limits<qint64>::min())},
        {QStringLiteral("huge"), QVariant::fromValue<quint64>(std::numeric_limits<quint64>::max())},
        {QStringLiteral("real"), 2.5},
        {QStringLiteral("yes"), true},
        {QStringLiteral("date"), QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC)},
        {QStringLiteral("before2001"), QDateTime::fromSecsSinceEpoch(631152000, Qt::UTC)},
        {QStringLiteral("data"), QByteArray("\x00\x01\xff", 3)},
        {QStringLiteral("nested"), nested},
    };
}

void expectSameTree(const QVariantMap &read)
{
    EXPECT_EQ(read.value(QStringLiteral("string")).toString(), QStringLiteral("Grüße & <tags>"));
    EXPECT_EQ(read.value(QStringLiteral("negative")).typeId(), QMetaType::LongLong);
    EXPECT_EQ(read.value(QStringLiteral("negative")).toLongLong(), -42);
    EXPECT_EQ(read.value(QStringLiteral("smallest")).toLongLong(), std::numeric_limits<qint64>::min());
    EXPECT_EQ(read.value(QStringLiteral("huge")).typeId(), QMetaType::ULongLong);
    EXPECT_EQ(read.value(QStringLiteral("huge")).toULongLong(), std::numeric_limits<quint64>::max());
    EXPECT_DOUBLE_EQ(read.value(QStringLiteral("real")).toDouble(), 2.5);
    EXPECT_EQ(read.value(QStringLiteral("yes")).typeId(), QMetaType::Bool);
    EXPECT_EQ(read.value(QStringLiteral("date")).toDateTime().toSecsSinceEpoch(), 1700000000);
    EXPECT_EQ(read.value(QStringLiteral("before2001")).toDateTime().toSecsSinceEpoch(), 631152000);
    EXPECT_EQ(read.value(QStringLiteral("data")).toByteArray(), QByteArray("\x00\x01\xff", 3));
    const QVariantMap nested = read.value(QStringLiteral("nested")).toMap();
    EXPECT_FALSE(nested.value(QStringLiteral("flag")).toBool());
    EXPECT_EQ(nested.value(QStringLiteral("list")).toList().value(1).toString(), QStringLiteral("two"));
}

}  // namespace

TEST(PropertyList, XmlFileRoundTripKeepsEveryType)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("round.plist"));
    ASSERT_TRUE(PropertyList::writeXmlFile(path, sampleTree()));
    expectSameTree(PropertyList::readDictionary(path));
    // Only the file itself is left: the temporary file was renamed over it.
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
              QStringList{QStringLiteral("round.plist")});
}

TEST(PropertyList, ReadsBinaryAndXmlWrittenElsewhere)
{
    const QByteArray xml = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                           "<key>disable-logging</key><string>1</string>"
                           "<key>n</key><integer>-7</integer>"
                           "<key>when</key><date>2001-01-01T00:00:10Z</date></dict></plist>";
    const QVariantMap fromXml = PropertyList::fromData(xml).toMap();
    EXPECT_EQ(fromXml.value(QStringLiteral("disable-logging")).toString(), QStringLiteral("1"));
    EXPECT_EQ(fromXml.value(QStringLiteral("n")).toLongLong(), -7);
    EXPECT_EQ(fromXml.value(QStringLiteral("when")).toDateTime().toSecsSinceEpoch(), 978307210);

    // The same document as the binary form macOS writes for settings files.
    plist_t parsed = nullptr;
    plist_from_xml(xml.constData(), static_cast<uint32_t>(xml.size()), &parsed);
    ASSERT_NE(parsed, nullptr);
    char *binary = nullptr;
    uint32_t length = 0;
    plist_to_bin(parsed, &binary, &length);
    plist_free(parsed);
    const QByteArray bytes(binary, static_cast<qsizetype>(length));
    plist_to_bin_free(binary);
    ASSERT_TRUE(bytes.startsWith("bplist00"));
    const QVariantMap fromBinary = PropertyList::fromData(bytes).toMap();
    EXPECT_EQ(fromBinary.value(QStringLiteral("n")).toLongLong(), -7);
    EXPECT_EQ(fromBinary.value(QStringLiteral("when")).toDateTime().toSecsSinceEpoch(), 978307210);
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
    EXPECT_TRUE(PropertyList::readDictionary(dir.filePath(QStringLiteral("missing.plist"))).isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(write("empty.plist", QByteArray())).isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(write("garbage.plist", "not a property list at all")).isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(write("cut.plist", "<?xml version=\"1.0\"?><plist><dict><key>a"))
                    .isEmpty());
    EXPECT_TRUE(
        PropertyList::readDictionary(write("cutbin.plist", QByteArray("bplist00\xd1\x01", 10))).isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(write("array.plist", PropertyList::toXml(QVariantList{1, 2})))
                    .isEmpty());
    EXPECT_FALSE(PropertyList::readFile(dir.filePath(QStringLiteral("array.plist"))).toList().isEmpty());
    EXPECT_TRUE(PropertyList::readDictionary(dir.path()).isEmpty());  // a folder is unreadable
}

TEST(PropertyList, WriteFailsCleanly)
{
    QTemporaryDir dir;
    EXPECT_FALSE(
        PropertyList::writeXmlFile(dir.filePath(QStringLiteral("no/such/folder/x.plist")), QVariantMap{}));
    // A value with no property-list form writes nothing and keeps the old file.
    const QString path = dir.filePath(QStringLiteral("keep.plist"));
    ASSERT_TRUE(PropertyList::writeXmlFile(path, QVariantMap{{QStringLiteral("a"), 1}}));
    EXPECT_FALSE(PropertyList::writeXmlFile(
        path, QVariantMap{{QStringLiteral("bad"), QVariant::fromValue(QSize(1, 2))}}));
    EXPECT_EQ(PropertyList::readDictionary(path).value(QStringLiteral("a")).toLongLong(), 1);
}
