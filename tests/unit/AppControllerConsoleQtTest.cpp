#include "app/HXAppController.h"
#include "system/HXMainThread.h"
#include "tests/support/StderrCapture.h"

#include <QApplication>
#include <QTest>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextEdit>

#include <atomic>
#include <thread>

namespace {

struct Style {
    QColor colour;
    bool bold = false;
    qreal pointSize = 0;
};

// The style of every character of NEEDLE in the console; fails when the
// characters disagree.
Style styleOf(QTextEdit &view, const QString &needle)
{
    const qsizetype at = view.toPlainText().indexOf(needle);
    if (at < 0)
        qFatal("text not in console: %s", qPrintable(needle));
    QTextCursor cursor(view.document());
    Style first;
    for (qsizetype i = at; i < at + needle.size(); ++i) {
        cursor.setPosition(static_cast<int>(i + 1));
        const QTextCharFormat format = cursor.charFormat();
        const Style style{format.foreground().color(), format.font().bold(), format.font().pointSizeF()};
        if (i == at)
            first = style;
        else if (style.colour != first.colour || style.bold != first.bold)
            qFatal("mixed style inside %s", qPrintable(needle));
    }
    return first;
}

// The character style of the empty line a "\n\n" separator leaves before the
// block holding NEEDLE.
QColor separatorColourBefore(QTextEdit &view, const QString &needle)
{
    for (QTextBlock block = view.document()->begin(); block.isValid(); block = block.next()) {
        if (block.text() == needle) {
            const QTextBlock blank = block.previous();
            if (!blank.isValid() || !blank.text().isEmpty())
                qFatal("no blank line before %s", qPrintable(needle));
            return blank.charFormat().foreground().color();
        }
    }
    qFatal("no line %s", qPrintable(needle));
}

}  // namespace

class AppControllerConsoleQtTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void windowedLinesCarryTheirOwnColourAndWeight();
    void withoutWindowLinesGoToTheSystemLogAndOutputString();
    void linesFromAWorkerAreInPlaceWhenTheCallReturns();
};

void AppControllerConsoleQtTest::windowedLinesCarryTheirOwnColourAndWeight()
{
    HXAppController controller;
    controller.setHasGUI(true);
    QTextEdit view;
    view.setReadOnly(true);
    controller.setErrorText(&view);

    controller.insertText(QStringLiteral("first 100% %d"));
    QCOMPARE(view.toPlainText(), QStringLiteral("first 100% %d"));
    controller.insertErrorText(QStringLiteral("second"));
    controller.insertBoldText(QStringLiteral("third"));
    controller.insertBoldErrorText(QStringLiteral("fourth"));
    controller.insertErrorText(QStringLiteral("fifth"), QColor(Qt::blue), true);
    QCOMPARE(view.toPlainText(), QStringLiteral("first 100% %d\n\nsecond\n\nthird\n\nfourth\n\nfifth"));
    QVERIFY(view.isReadOnly());
    QVERIFY2(!view.textCursor().hasSelection(), "the new line is scrolled to, not selected");
    QCOMPARE(view.textCursor().position(), view.toPlainText().size());

    const Style first = styleOf(view, QStringLiteral("first 100% %d"));
    QCOMPARE(first.colour, QColor(Qt::black));
    QVERIFY(!first.bold);
    QCOMPARE(first.pointSize, 12.0);
    const Style second = styleOf(view, QStringLiteral("second"));
    QCOMPARE(second.colour, QColor(Qt::red));
    QVERIFY(!second.bold);
    const Style third = styleOf(view, QStringLiteral("third"));
    QCOMPARE(third.colour, QColor(Qt::black));
    QVERIFY(third.bold);
    QCOMPARE(third.pointSize, 12.0);
    const Style fourth = styleOf(view, QStringLiteral("fourth"));
    QCOMPARE(fourth.colour, QColor(Qt::red));
    QVERIFY2(!fourth.bold, "the bold error line stays in the regular weight");
    const Style fifth = styleOf(view, QStringLiteral("fifth"));
    QCOMPARE(fifth.colour, QColor(Qt::blue));
    QVERIFY(fifth.bold);

    // The separator takes the style at the insertion point: the line before's.
    QCOMPARE(separatorColourBefore(view, QStringLiteral("third")), QColor(Qt::red));
    QCOMPARE(separatorColourBefore(view, QStringLiteral("second")), QColor(Qt::black));

    controller.clearErrorText();
    QCOMPARE(view.toPlainText(), QString());
    controller.insertText(QStringLiteral("again"));
    QCOMPARE(view.toPlainText(), QStringLiteral("again"));
    QVERIFY(!controller.outputString().has_value());
}

void AppControllerConsoleQtTest::withoutWindowLinesGoToTheSystemLogAndOutputString()
{
    HXAppController controller;
    QTextEdit view;
    controller.setErrorText(&view);
    QVERIFY(!controller.outputString().has_value());
    controller.clearErrorText();
    QVERIFY2(!controller.outputString().has_value(), "clearing an absent output leaves it absent");

    StderrCapture capture;
    controller.insertText(QStringLiteral("Trashing preferences..."));
    controller.insertErrorText(QStringLiteral("Unable to trash 100% of %@"));
    controller.insertBoldText(QStringLiteral("Done."));
    const QString systemLog = capture.text();

    QCOMPARE(controller.outputString().value_or(QStringLiteral("absent")),
             QStringLiteral("Trashing preferences...\n\nUnable to trash 100% of %@\n\nDone."));
    QVERIFY2(view.toPlainText().isEmpty(), "command-line mode never touches a view");
    QVERIFY(systemLog.contains(QStringLiteral("] Trashing preferences...\n")));
    QVERIFY(systemLog.contains(QStringLiteral("] Unable to trash 100% of %@\n")));
    QVERIFY(systemLog.contains(QStringLiteral("] Done.\n")));

    controller.clearErrorText();
    QCOMPARE(controller.outputString().value_or(QStringLiteral("absent")), QString());
    controller.insertText(QStringLiteral("next run"));
    QCOMPARE(controller.outputString().value_or(QStringLiteral("absent")), QStringLiteral("next run"));
}

void AppControllerConsoleQtTest::linesFromAWorkerAreInPlaceWhenTheCallReturns()
{
    HXAppController controller;
    controller.setHasGUI(true);
    QTextEdit view;
    controller.setErrorText(&view);

    std::atomic<bool> finished{false};
    std::atomic<int> missing{0};
    std::thread worker([&] {
        for (int i = 0; i < 20; ++i) {
            const QString line = QStringLiteral("step %1").arg(i);
            if (i % 2 == 0)
                controller.insertText(line);
            else
                controller.insertErrorText(line);
            HXPerformOnMainThread(
                [&] {
                    if (!view.toPlainText().endsWith(line))
                        ++missing;
                },
                true);
        }
        finished = true;
    });
    while (!finished)
        QTest::qWait(10);
    worker.join();

    QCOMPARE(missing.load(), 0);
    QStringList expected;
    for (int i = 0; i < 20; ++i)
        expected << QStringLiteral("step %1").arg(i);
    QCOMPARE(view.toPlainText(), expected.join(QStringLiteral("\n\n")));
    QCOMPARE(styleOf(view, QStringLiteral("step 7")).colour, QColor(Qt::red));
    QCOMPARE(styleOf(view, QStringLiteral("step 8")).colour, QColor(Qt::black));
}

QTEST_MAIN(AppControllerConsoleQtTest)
#include "AppControllerConsoleQtTest.moc"
