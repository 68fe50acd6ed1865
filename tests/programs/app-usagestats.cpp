// One application run as far as usage statistics go, from inside Mendwell.app:
//   app-usagestats run [ANSWER]   starts, loads the statistics on a window and quits
//                                 when their queue is done; when the consent
//                                 question shows, it prints it and clicks ANSWER
//   app-usagestats box on|off     the preferences check box switched to on or off

#include "app/HXQC.h"
#include "diagnostics/HXLog.h"
#include "tests/programs/StartedPrograms.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QMessageBox>
#include <QTimer>

#include <cstdio>

namespace {

// Answers the question as a person would, with a click on the button named ANSWER.
void answerQuestionWith(const QString &answer)
{
    auto *watch = new QTimer(qApp);
    QObject::connect(watch, &QTimer::timeout, [watch, answer] {
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            auto *box = qobject_cast<QMessageBox *>(widget);
            if (box == nullptr || !box->isVisible())
                continue;
            QStringList buttons;
            QAbstractButton *chosen = nullptr;
            for (QAbstractButton *button : box->buttons()) {
                buttons << button->text();
                if (button->text() == answer)
                    chosen = button;
            }
            std::printf("asked: %s\ninformative: %s\nbuttons: %s\n", qPrintable(box->text()),
                        qPrintable(box->informativeText()), qPrintable(buttons.join(QStringLiteral(" | "))));
            std::fflush(stdout);
            watch->stop();
            if (chosen != nullptr)
                chosen->click();
            return;
        }
    });
    watch->start(20);
}

}  // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    const QStringList arguments = QApplication::arguments().mid(1);
    HXLog::createNewLog(QStringLiteral("app-usagestats"));
    if (arguments.value(0) == u"box" && arguments.size() == 2) {
        QCheckBox box;
        box.setChecked(arguments.value(1) == u"on");
        HXQC::sharedController().toggleQCLogging(&box);
        HXLog::finishWriting();
        return 0;
    }
    if (arguments.value(0) != u"run" || arguments.size() > 2) {
        std::fprintf(stderr, "usage: app-usagestats run [ANSWER] | box on|off\n");
        return 2;
    }
    answerQuestionWith(arguments.value(1));
    QWidget window;
    window.resize(400, 300);
    window.show();
    QTimer::singleShot(0, &application, [&] {
        HXQC &statistics = HXQC::sharedController();
        statistics.loadQC(&window);
        statistics.waitUntilQueueIsIdle();
        waitForStartedPrograms();
        application.quit();
    });
    return application.exec();
}
