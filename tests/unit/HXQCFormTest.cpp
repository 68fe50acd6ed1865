// The statistics form as the server has always received it, and the identifiers'
// alphabet.

#include "app/HXQC.h"
#include "tests/support/TestFiles.h"

#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

TEST(HXQCFormTest, PartsFollowTheKeyOrderWithFilesAsOctetStreamsAndNoClosingLine)
{
    QTemporaryDir folder;
    const QString attachment = folder.filePath(QStringLiteral("crash.log"));
    ASSERT_TRUE(disk::write(attachment, QByteArray("bytes\0\r\nmore", 12)));

    const QVariantMap form{{QStringLiteral("version"), 100},
                           {QStringLiteral("app"), QStringLiteral("com.lanternfish.Mendwell")},
                           {QStringLiteral("file"), QUrl::fromLocalFile(attachment)},
                           {QStringLiteral("page"), QUrl(QStringLiteral("https://example.org/x"))},
                           {QStringLiteral("note"), QStringLiteral("ü")}};
    const QByteArray expected =
        QByteArray("--B\r\n"
                   "Content-Disposition: form-data; name=\"app\"\r\n\r\n"
                   "com.lanternfish.Mendwell\r\n"
                   "--B\r\n"
                   "Content-Disposition: form-data; name=\"file\"; filename=\"crash.log\"\r\n"
                   "Content-Type: application/octet-stream\r\n\r\n") +
        QByteArray("bytes\0\r\nmore", 12) +
        "\r\n"
        "--B\r\n"
        "Content-Disposition: form-data; name=\"note\"\r\n\r\n"
        "\xc3\xbc\r\n"
        "--B\r\n"  // a web address adds nothing but its delimiters
        "\r\n"
        "--B\r\n"
        "Content-Disposition: form-data; name=\"version\"\r\n\r\n"
        "100\r\n";
    EXPECT_EQ(HXQC::generateFormData(form, QStringLiteral("B")), expected);
}

TEST(HXQCFormTest, IdentifiersDrawFromTheSuitesAlphabet)
{
    const QString alphabet = QStringLiteral("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXZY0123456789");
    EXPECT_EQ(HXQC::generateRandomString(12).size(), 12);
    QSet<QChar> seen;
    for (int i = 0; i < 200; ++i)
        for (const QChar character : HXQC::generateRandomString(12)) {
            ASSERT_TRUE(alphabet.contains(character)) << QString(character).toStdString();
            seen.insert(character);
        }
    // 2,400 draws from 62 characters reach every one of them.
    EXPECT_EQ(seen.size(), 62);
}
