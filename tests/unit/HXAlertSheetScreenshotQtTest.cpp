// An alert sheet on a real X server: the test starts its own Xvfb, shows a window
// with a console and an alert sheet on it, checks that the sheet is on screen over
// the window and takes the window's input, and saves a screenshot to
// $MENDWELL_SCREENSHOT_PATH when that is set.

#include "app/HXAppController.h"
#include "tests/support/TestDisplay.h"
#include "ui/HXAlert.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QImage>
#include <QLabel>
#include <QMessageBox>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QTest>
#include <QTextEdit>
#include <QVBoxLayout>
#include <QWindow>

using namespace Qt::Literals::StringLiterals;
namespace {

bool g_haveDisplay = false;

QAbstractButton *buttonTitled(QMessageBox *box, const QString &title)
{
    for (QAbstractButton *button : box->buttons()) {
        if (button->text() == title)
            return button;
    }
    return nullptr;
}

}  // namespace

class HXAlertSheetScreenshotQtTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theSheetIsOnScreenOverItsWindow();
};

void HXAlertSheetScreenshotQtTest::theSheetIsOnScreenOverItsWindow()
{
    if (!g_haveDisplay)
        QSKIP("Xvfb is not installed");

    QWidget window;
    window.setWindowTitle(u"Mendwell"_s);
    auto *layout = new QVBoxLayout(&window);
    layout->addWidget(new QLabel(u"Repair Adobe Premiere Pro"_s));
    auto *console = new QTextEdit;
    console->setReadOnly(true);
    layout->addWidget(console);
    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    auto *repair = new QPushButton(u"Repair"_s);
    buttons->addWidget(repair);
    layout->addLayout(buttons);
    int repairClicks = 0;
    connect(repair, &QPushButton::clicked, this, [&] { ++repairClicks; });
    window.setGeometry(112, 60, 800, 500);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    HXAppController controller;
    controller.setHasGUI(true);
    controller.setErrorText(console);
    controller.insertBoldText(u"Trashing Premiere Pro preferences..."_s);
    controller.insertText(u"Stopping Adobe background processes..."_s);
    controller.insertErrorText(u"Unable to remove the Dynamic Link cache."_s);
    controller.insertText(u"Checking permissions..."_s);

    auto alert = HXAlert::create();
    QCOMPARE(HXAlert::alertSheetWithMessageText(
                 u"Processing complete"_s, std::nullopt, std::nullopt, std::nullopt,
                 QStringLiteral("Errors were found during processing.\n\nScroll up to see the relevant error "
                                "messages."),
                 &window, nullptr, nullptr, false, alert),
             -1);
    QMessageBox *box = alert->alert();
    QVERIFY(box != nullptr);
    QVERIFY(QTest::qWaitForWindowExposed(box));
    QCOMPARE(box->parentWidget(), &window);
    QCOMPARE(box->windowModality(), Qt::WindowModal);
    QVERIFY(window.frameGeometry().contains(box->frameGeometry()));
    QCOMPARE(box->geometry().top(), window.geometry().top());
    QVERIFY(qAbs(box->geometry().center().x() - window.geometry().center().x()) <= 1);
    QTest::qWait(300);  // let the server finish drawing before the picture

    const QImage screen = QGuiApplication::primaryScreen()->grabWindow(0).toImage();
    if (qEnvironmentVariableIsSet("MENDWELL_SCREENSHOT_PATH"))
        QVERIFY(screen.save(qEnvironmentVariable("MENDWELL_SCREENSHOT_PATH"), "PNG"));

    // What the screen shows where the sheet lies is the sheet itself, not the window.
    const QImage own = box->grab().toImage().convertToFormat(screen.format());
    const QPoint origin = box->mapToGlobal(QPoint(0, 0));
    int differing = 0;
    int sampled = 0;
    for (int y = 0; y < own.height(); y += 4) {
        for (int x = 0; x < own.width(); x += 4) {
            ++sampled;
            if (own.pixel(x, y) != screen.pixel(origin.x() + x, origin.y() + y))
                ++differing;
        }
    }
    QVERIFY2(differing * 20 < sampled, qPrintable(u"%1 of %2 differ"_s.arg(differing).arg(sampled)));

    // The sheet takes the window's input until it is answered.
    const QPoint repairCentre = repair->mapTo(&window, repair->rect().center());
    QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {}, repairCentre);
    QCOMPARE(repairClicks, 0);
    QAbstractButton *ok = buttonTitled(box, u"OK"_s);
    QVERIFY(ok != nullptr);
    QTest::mouseClick(box->windowHandle(), Qt::LeftButton, {}, ok->mapTo(box, ok->rect().center()));
    QVERIFY(alert->alertEnded());
    QCOMPARE(alert->returnCode(), HXAlert::kDefaultReturn);
    QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {}, repairCentre);
    QCOMPARE(repairClicks, 1);
}

int main(int argc, char **argv)
{
    TestDisplay display(u"1024x640x24"_s);
    g_haveDisplay = display.isRunning();
    if (g_haveDisplay)
        qputenv("DISPLAY", display.display().toUtf8());
    qputenv("QT_QPA_PLATFORM", g_haveDisplay ? "xcb" : "offscreen");
    QApplication app(argc, argv);
    HXAlertSheetScreenshotQtTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "HXAlertSheetScreenshotQtTest.moc"
