// Drives the windowed repair the way the main window does: a window with the
// console, the repair button, the spinner and the two option boxes, the repair
// button's action, and then the window-layout menu command. Every alert is
// answered with its default button. Prints what a person would have seen:
//   running: button=disabled spinner=busy   (while the repair ran, if seen)
//   alert: MESSAGE | INFORMATIVE            (newlines as "\n")
//   console: ...                            (the console's text after the repair)
//   after: button=enabled spinner=idle
// usage: app-windowedrepair [trashprefs] [layouts]   (the boxes to tick)

#include "app/HXAppController.h"
#include "diagnostics/HXLog.h"

#include <QApplication>
#include <QCheckBox>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>

#include <cstdio>
#include <functional>

namespace {

void print(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

QString oneLine(QString text)
{
    return text.replace(QLatin1Char('\n'), QStringLiteral("\\n"));
}

QString controlsState(const QPushButton &button, const QProgressBar &spinner)
{
    return QStringLiteral("button=%1 spinner=%2")
        .arg(button.isEnabled() ? QStringLiteral("enabled") : QStringLiteral("disabled"),
             spinner.maximum() == 0 ? QStringLiteral("busy") : QStringLiteral("idle"));
}

// Calls CHANGED after the watched widget was switched on or off, once what
// switched it is done: a refused repair ends between two looks.
class SwitchWatch : public QObject {
public:
    std::function<void()> changed;
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::EnabledChange)
            QTimer::singleShot(0, this, changed);
        return false;
    }
};

}  // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    const QStringList options = application.arguments().mid(1);
    HXLog::createNewLog(QStringLiteral("Mendwell"));

    QWidget window;
    auto *layout = new QVBoxLayout(&window);
    auto *console = new QTextEdit;
    auto *button = new QPushButton(QStringLiteral("Repair"));
    auto *spinner = new QProgressBar;
    auto *trashPrefs = new QCheckBox(QStringLiteral("Trash preferences"));
    auto *layouts = new QCheckBox(QStringLiteral("Reset window layouts"));
    for (QWidget *part :
         {static_cast<QWidget *>(console), static_cast<QWidget *>(button), static_cast<QWidget *>(spinner),
          static_cast<QWidget *>(trashPrefs), static_cast<QWidget *>(layouts)})
        layout->addWidget(part);
    spinner->setRange(0, 1);
    trashPrefs->setChecked(options.contains(QStringLiteral("trashprefs")));
    layouts->setChecked(options.contains(QStringLiteral("layouts")));
    window.show();

    HXAppController controller;
    controller.setHasGUI(true);
    controller.setErrorText(console);
    controller.setRepairControls({&window, button, spinner, trashPrefs, layouts, nullptr});

    // The repair's end: the button switched on again.
    SwitchWatch switches;
    switches.changed = [&] {
        if (!button->isEnabled())
            return;
        print(QStringLiteral("console: ") + oneLine(console->toPlainText()));
        print(QStringLiteral("after: ") + controlsState(*button, *spinner));
        // The menu command runs on the main thread and waits for its alert.
        controller.menuTrashWindowLayout();
        QApplication::exit(0);
    };
    button->installEventFilter(&switches);
    bool sawRunning = false;
    QTimer watcher;
    QObject::connect(&watcher, &QTimer::timeout, [&] {
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            auto *alert = qobject_cast<QMessageBox *>(widget);
            if (alert == nullptr || !alert->isVisible() || alert->property("answered").toBool())
                continue;
            alert->setProperty("answered", true);
            print(QStringLiteral("alert: ") + oneLine(alert->text()) + QStringLiteral(" | ") +
                  oneLine(alert->informativeText()));
            QTimer::singleShot(0, alert, [alert] { alert->defaultButton()->click(); });
        }
        if (spinner->maximum() == 0 && !sawRunning) {
            sawRunning = true;
            print(QStringLiteral("running: ") + controlsState(*button, *spinner));
        }
    });
    watcher.start(20);
    // Only keeps a broken run from hanging forever.
    QTimer::singleShot(120000, [] { QApplication::exit(3); });
    controller.repair();
    const int status = QApplication::exec();
    HXLog::finishWriting();
    return status;
}
