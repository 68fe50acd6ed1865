// An alert sheet on a real X server: the test starts its own Xvfb, shows a window
// with a console and an alert sheet on it, checks that the sheet is on screen over
// the window and takes the window's input, and saves a screenshot (by default
// /tmp/mendwell-alert-sheet.png, or $MENDWELL_SCREENSHOT_PATH).

#include "app/HXAppController.h"
#include "ui/HXAlert.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QImage>
#include <QLabel>
#include <QMessageBox>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QStandardPaths>
#include <QTest>
#include <QTextEdit>
#include <QVBoxLayout>
#include <QWindow>

#include <csignal>
#include <cstdlib>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

// An Xvfb of our own for the life of the test; its display in DISPLAY. It ends
// itself when its last client goes, so even a crashed test leaves none behind.
class VirtualDisplay {
public:
    bool start()
    {
        const QByteArray program = QStandardPaths::findExecutable(QStringLiteral("Xvfb")).toLocal8Bit();
        if (program.isEmpty())
            return false;
        int fds[2];
        if (::pipe(fds) != 0)
            return false;
        const QByteArray fd = QByteArray::number(fds[1]);
        const char *argv[] = {program.constData(), "-displayfd", fd.constData(), "-screen",    "0",
                              "1024x640x24",       "-nolisten",  "tcp",          "-terminate", nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        const int spawned = posix_spawn(&m_pid, program.constData(), &actions, nullptr,
                                        const_cast<char *const *>(argv), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        if (spawned != 0) {
            ::close(fds[0]);
            m_pid = -1;
            return false;
        }
        // Xvfb writes its display number once it accepts connections.
        QByteArray number;
        char c = 0;
        while (::read(fds[0], &c, 1) == 1 && c != '\n')
            number.append(c);
        ::close(fds[0]);
        if (number.isEmpty())
            return false;
        qputenv("DISPLAY", ":" + number);
        return true;
    }

    ~VirtualDisplay()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

private:
    pid_t m_pid = -1;
};

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
    window.setWindowTitle(QStringLiteral("Mendwell"));
    auto *layout = new QVBoxLayout(&window);
    layout->addWidget(new QLabel(QStringLiteral("Repair Adobe Premiere Pro")));
    auto *console = new QTextEdit;
    console->setReadOnly(true);
    layout->addWidget(console);
    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    auto *repair = new QPushButton(QStringLiteral("Repair"));
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
    controller.insertBoldText(QStringLiteral("Trashing Premiere Pro preferences..."));
    controller.insertText(QStringLiteral("Stopping Adobe background processes..."));
    controller.insertErrorText(QStringLiteral("Unable to remove the Dynamic Link cache."));
    controller.insertText(QStringLiteral("Checking permissions..."));

    auto alert = HXAlert::create();
    QCOMPARE(HXAlert::alertSheetWithMessageText(
                 QStringLiteral("Processing complete"), std::nullopt, std::nullopt, std::nullopt,
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
    const QString path = qEnvironmentVariableIsSet("MENDWELL_SCREENSHOT_PATH")
                             ? qEnvironmentVariable("MENDWELL_SCREENSHOT_PATH")
                             : QStringLiteral("/tmp/mendwell-alert-sheet.png");
    QVERIFY(screen.save(path, "PNG"));

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
    QVERIFY2(differing * 20 < sampled,
             qPrintable(QStringLiteral("%1 of %2 differ").arg(differing).arg(sampled)));

    // The sheet takes the window's input until it is answered.
    const QPoint repairCentre = repair->mapTo(&window, repair->rect().center());
    QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {}, repairCentre);
    QCOMPARE(repairClicks, 0);
    QAbstractButton *ok = buttonTitled(box, QStringLiteral("OK"));
    QVERIFY(ok != nullptr);
    QTest::mouseClick(box->windowHandle(), Qt::LeftButton, {}, ok->mapTo(box, ok->rect().center()));
    QVERIFY(alert->alertEnded());
    QCOMPARE(alert->returnCode(), HXAlert::kDefaultReturn);
    QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {}, repairCentre);
    QCOMPARE(repairClicks, 1);
}

int main(int argc, char **argv)
{
    VirtualDisplay display;
    g_haveDisplay = display.start();
    qputenv("QT_QPA_PLATFORM", g_haveDisplay ? "xcb" : "offscreen");
    QApplication app(argc, argv);
    HXAlertSheetScreenshotQtTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "HXAlertSheetScreenshotQtTest.moc"
