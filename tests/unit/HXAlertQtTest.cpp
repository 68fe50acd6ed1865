#include "system/HXUserDefaults.h"
#include "system/PropertyList.h"
#include "ui/HXAlert.h"
#include "tests/support/StderrCapture.h"

#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <functional>
#include <future>

using namespace Qt::Literals::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Pumps events until CONDITION holds; a hang is the test runner's to stop.
void waitUntil(const std::function<bool()> &condition)
{
    while (!condition())
        QTest::qWait(10);
}

QList<QMessageBox *> visibleAlerts()
{
    QList<QMessageBox *> alerts;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (auto *box = qobject_cast<QMessageBox *>(widget); box != nullptr && box->isVisible())
            alerts << box;
    }
    return alerts;
}

QMessageBox *waitForAlert()
{
    waitUntil([] { return !visibleAlerts().isEmpty(); });
    return visibleAlerts().constFirst();
}

QAbstractButton *buttonTitled(QMessageBox *box, const QString &title)
{
    for (QAbstractButton *button : box->buttons()) {
        if (button->text() == title)
            return button;
    }
    return nullptr;
}

QStringList buttonTitles(QMessageBox *box)
{
    QStringList titles;
    for (QAbstractButton *button : box->buttons())
        titles << button->text();
    titles.sort();
    return titles;
}

// Runs WORK on a thread of its own while the main thread keeps the events going.
struct Worker {
    explicit Worker(std::function<qint64()> work) : future(std::async(std::launch::async, std::move(work))) {}
    bool done() const { return future.wait_for(0s) == std::future_status::ready; }
    qint64 result()
    {
        waitUntil([this] { return done(); });
        return future.get();
    }

    std::future<qint64> future;
};

}  // namespace

// A delegate with its own did-end handler.
class AnswerRecorder : public QObject {
    Q_OBJECT

public:
    Q_INVOKABLE void sheetDidEnd(QMessageBox *alert, qint64 returnCode, void *contextInfo)
    {
        (void)contextInfo;
        sawAlert = alert != nullptr;
        codes << returnCode;
    }

    QList<qint64> codes;
    bool sawAlert = false;
};

class HXAlertQtTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        HXUserDefaults::standardUserDefaults().setPath(m_prefs.filePath(u"com.lanternfish.Mendwell.plist"_s));
        m_window = std::make_unique<QMainWindow>();
        m_window->resize(640, 420);
        m_windowButton = new QPushButton(u"Repair"_s);
        m_window->setCentralWidget(m_windowButton);
        connect(m_windowButton, &QPushButton::clicked, this, [this] { ++m_windowClicks; });
        m_window->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
    }

    void cleanup()
    {
        for (QMessageBox *box : visibleAlerts())
            box->close();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(visibleAlerts().isEmpty());
    }

    void waitedFromAWorkerThreadGivesEachButtonsCode()
    {
        const QList<std::pair<QString, qint64>> answers{{u"Repair"_s, 1}, {u"Cancel"_s, 0}, {u"Later"_s, -1}};
        for (const auto &[title, code] : answers) {
            QWidget *window = m_window.get();
            Worker worker([window] {
                return HXAlert::alertSheetWithMessageText(u"Repair now?"_s, u"Repair"_s, u"Cancel"_s,
                                                          u"Later"_s, u"Premiere Pro must quit first."_s,
                                                          window, true);
            });
            QMessageBox *box = waitForAlert();
            QCOMPARE(box->parentWidget(), m_window.get());
            QCOMPARE(box->windowModality(), Qt::WindowModal);
            QCOMPARE(buttonTitles(box), (QStringList{"Cancel", "Later", "Repair"}));
            QCOMPARE(box->defaultButton(), buttonTitled(box, u"Repair"_s));
            QVERIFY(!worker.done());
            buttonTitled(box, title)->click();
            QCOMPARE(worker.result(), code);
            QVERIFY2(visibleAlerts().isEmpty(), "the alert is ordered out");
        }
    }

    void waitedOnTheMainThreadKeepsTheWindowAliveButBlocked()
    {
        bool windowBlocked = false;
        QTimer answerer;
        connect(&answerer, &QTimer::timeout, this, [&] {
            const QList<QMessageBox *> alerts = visibleAlerts();
            if (alerts.isEmpty())
                return;
            answerer.stop();
            // A sheet takes the window's input for itself.
            const int before = m_windowClicks;
            clickWindowButton();
            windowBlocked = m_windowClicks == before;
            QCOMPARE(alerts.constFirst()->text(), u"Processing complete"_s);
            buttonTitled(alerts.constFirst(), u"OK"_s)->click();
        });
        answerer.start(10);

        const qint64 code = HXAlert::alertSheetWithMessageText(u"Processing complete"_s,
                                                               u"No errors were found."_s, m_window.get());
        QCOMPARE(code, HXAlert::kDefaultReturn);
        QVERIFY(windowBlocked);
        QVERIFY(visibleAlerts().isEmpty());

        // With the sheet gone the window takes clicks again.
        const int before = m_windowClicks;
        clickWindowButton();
        QCOMPARE(m_windowClicks, before + 1);
    }

    void notWaitedReturnsAtOnceAndTheDelegateGetsTheAnswer()
    {
        AnswerRecorder recorder;
        const qint64 code = HXAlert::alertSheetWithMessageText(u"Trash layouts?"_s, u"Trash"_s, u"Keep"_s,
                                                               std::nullopt, std::nullopt, m_window.get(),
                                                               &recorder, "sheetDidEnd", false, nullptr);
        QCOMPARE(code, -1);
        QMessageBox *box = waitForAlert();
        QCOMPARE(buttonTitles(box), (QStringList{"Keep", "Trash"}));
        QVERIFY(recorder.codes.isEmpty());
        buttonTitled(box, u"Keep"_s)->click();
        QCOMPARE(recorder.codes, (QList<qint64>{0}));
        QVERIFY(recorder.sawAlert);

        // Without a delegate the alert answers itself, and nobody is left waiting.
        auto alone = HXAlert::create();
        QCOMPARE(showUnwaited(u"Done"_s, alone), -1);
        buttonTitled(waitForAlert(), u"OK"_s)->click();
        QVERIFY(alone->alertEnded());
        QCOMPARE(alone->returnCode(), HXAlert::kDefaultReturn);
        QCOMPARE(alone->delegate(), alone.get());
    }

    void theDelegateFormAlwaysWaitsAndAnswersItself()
    {
        AnswerRecorder recorder;
        QWidget *window = m_window.get();
        Worker withDelegate([window, &recorder] {
            return HXAlert::alertSheetWithMessageText(u"Quit Premiere Pro?"_s, u"Quit"_s, u"Cancel"_s,
                                                      std::nullopt, std::nullopt, window, &recorder,
                                                      "sheetDidEnd", false);
        });
        QMessageBox *box = waitForAlert();
        QTest::qWait(300);
        QVERIFY2(!withDelegate.done(), "waits although the caller said not to");
        buttonTitled(box, u"Cancel"_s)->click();
        QCOMPARE(withDelegate.result(), HXAlert::kAlternateReturn);
        QVERIFY(recorder.codes.isEmpty());

        // The short form with a block flag goes the same way.
        Worker shortForm([window] {
            return HXAlert::alertSheetWithMessageText(u"Done"_s, std::nullopt, std::nullopt, std::nullopt,
                                                      std::nullopt, window, false);
        });
        buttonTitled(waitForAlert(), u"OK"_s)->click();
        QCOMPARE(shortForm.result(), HXAlert::kDefaultReturn);
    }

    void aDelegateWithoutTheSelectorShowsNothing()
    {
        AnswerRecorder recorder;
        StderrCapture capture;
        const qint64 code = HXAlert::alertSheetWithMessageText(u"Never shown"_s, std::nullopt, std::nullopt,
                                                               std::nullopt, std::nullopt, m_window.get(),
                                                               &recorder, "noSuchHandler", true, nullptr);
        const QString console = capture.text();
        QCOMPARE(code, -1);
        QTest::qWait(50);
        QVERIFY(visibleAlerts().isEmpty());
        QVERIFY2(console.contains(u"] Alert error: delegate does not respond to selector noSuchHandler\n"_s),
                 qPrintable(console));
    }

    void aWindowThatAlreadyShowsASheetGetsAFreeStandingAlert()
    {
        auto first = HXAlert::create();
        QCOMPARE(showUnwaited(u"First"_s, first), -1);
        auto second = HXAlert::create();
        QCOMPARE(showUnwaited(u"Second"_s, second), -1);
        waitUntil([] { return visibleAlerts().size() == 2; });

        QCOMPARE(first->parentWindow(), m_window.get());
        QCOMPARE(first->alert()->parentWidget(), m_window.get());
        QCOMPARE(first->alert()->windowModality(), Qt::WindowModal);
        QCOMPARE(second->parentWindow(), nullptr);
        QCOMPARE(second->alert()->parentWidget(), nullptr);
        QCOMPARE(second->alert()->windowModality(), Qt::ApplicationModal);

        buttonTitled(second->alert(), u"OK"_s)->click();
        buttonTitled(first->alert(), u"OK"_s)->click();
        QVERIFY(first->alertEnded() && second->alertEnded());
        QCOMPARE(first->returnCode(), 1);
    }

    void textsAreShownLiterally()
    {
        auto alert = HXAlert::create();
        const QString informative = u"Copied 100% of %d files to %@ <b>now</b>"_s;
        showUnwaited(std::nullopt, alert, informative);
        QMessageBox *box = waitForAlert();
        QCOMPARE(box->text(), QString());
        QCOMPARE(box->informativeText(), informative);
        auto *label = box->findChild<QLabel *>(u"qt_msgbox_informativelabel"_s);
        QVERIFY(label != nullptr);
        QCOMPARE(label->textFormat(), Qt::PlainText);
        QCOMPARE(buttonTitles(box), QStringList{u"OK"_s});
        QCOMPARE(box->checkBox(), nullptr);
        buttonTitled(box, u"OK"_s)->click();
    }

    void theSuppressionBoxIsBoundToTheUserDefaults()
    {
        const QString key = u"hideQuitWarning"_s;
        for (const bool expectedAtStart : {false, true}) {
            AnswerRecorder recorder;
            HXAlert::alertSheetWithMessageText(u"Premiere Pro is running"_s, std::nullopt, std::nullopt,
                                               std::nullopt, std::nullopt, m_window.get(), &recorder,
                                               "sheetDidEnd", false, nullptr, key);
            QMessageBox *box = waitForAlert();
            QCheckBox *suppression = box->checkBox();
            QVERIFY(suppression != nullptr);
            QCOMPARE(suppression->text(), u"Do not show this message again"_s);
            QCOMPARE(suppression->isChecked(), expectedAtStart);
            if (!expectedAtStart) {
                suppression->click();
                const QVariantMap stored =
                    PropertyList::readDictionary(HXUserDefaults::standardUserDefaults().path());
                QCOMPARE(stored.value(key), QVariant(true));
            }
            buttonTitled(box, u"OK"_s)->click();
            QCOMPARE(recorder.codes, (QList<qint64>{1}));
        }
    }

    void aTimedAlertLeftAloneAnswersWithTheDefaultButtonAndAnAnswerFirstIsKept()
    {
        // From the main thread, which pumps events while it waits...
        bool seen = false;
        QTimer watcher;
        connect(&watcher, &QTimer::timeout, this, [&] { seen = seen || !visibleAlerts().isEmpty(); });
        watcher.start(10);
        QCOMPARE(HXAlert::timedAlertSheetWithMessageText(u"Repair starts soon"_s, u"Start"_s, u"Cancel"_s,
                                                         std::nullopt, std::nullopt, m_window.get(), 1s),
                 HXAlert::kDefaultReturn);
        watcher.stop();
        QVERIFY(seen);
        QVERIFY2(visibleAlerts().isEmpty(), "the timed-out alert is ordered out");

        // ...and from a worker, which polls.
        QWidget *window = m_window.get();
        Worker worker([window] {
            return HXAlert::timedAlertSheetWithMessageText(u"Repair starts soon"_s, std::nullopt, u"Cancel"_s,
                                                           std::nullopt, std::nullopt, window, 1s);
        });
        QMessageBox *box = waitForAlert();
        QCOMPARE(box->parentWidget(), m_window.get());
        QCOMPARE(worker.result(), HXAlert::kDefaultReturn);
        QVERIFY(visibleAlerts().isEmpty());

        // Answered first, the user's answer stands.
        Worker answered([window] {
            return HXAlert::timedAlertSheetWithMessageText(u"Trash preferences?"_s, u"Trash"_s, u"Keep"_s,
                                                           std::nullopt, std::nullopt, window, 1s);
        });
        buttonTitled(waitForAlert(), u"Keep"_s)->click();
        QCOMPARE(answered.result(), HXAlert::kAlternateReturn);
        // The timer still fires into the finished alert; that must stay harmless.
        QTest::qWait(1500);
        QVERIFY(visibleAlerts().isEmpty());
    }

private:
    // TEXT (and INFORMATIVE) with the OK button alone, on the window, not waited for.
    qint64 showUnwaited(const HXAlert::Text &text, const std::shared_ptr<HXAlert> &alert,
                        const HXAlert::Text &informative = std::nullopt)
    {
        return HXAlert::alertSheetWithMessageText(text, std::nullopt, std::nullopt, std::nullopt, informative,
                                                  m_window.get(), nullptr, nullptr, false, alert);
    }

    // Through the window system, where a modal window's blocking applies.
    void clickWindowButton()
    {
        const QPoint centre = m_windowButton->mapTo(m_window.get(), m_windowButton->rect().center());
        QTest::mouseClick(m_window->windowHandle(), Qt::LeftButton, {}, centre);
    }

    std::unique_ptr<QMainWindow> m_window;
    QPushButton *m_windowButton = nullptr;
    int m_windowClicks = 0;
    QTemporaryDir m_prefs;
};

QTEST_MAIN(HXAlertQtTest)
#include "HXAlertQtTest.moc"
