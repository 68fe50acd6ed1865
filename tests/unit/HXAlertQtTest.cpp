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

#include <atomic>
#include <functional>
#include <thread>

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
class Worker {
public:
    explicit Worker(std::function<qint64()> work)
        : m_thread([this, work = std::move(work)] {
              m_result = work();
              m_done = true;
          })
    {
    }
    ~Worker()
    {
        if (m_thread.joinable())
            m_thread.join();
    }
    bool done() const { return m_done; }
    qint64 result()
    {
        waitUntil([this] { return m_done.load(); });
        m_thread.join();
        return m_result;
    }

private:
    std::atomic<bool> m_done{false};
    std::atomic<qint64> m_result{-100};
    std::thread m_thread;
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
    void initTestCase();
    void cleanup();
    void waitedFromAWorkerThreadGivesEachButtonsCode();
    void waitedOnTheMainThreadKeepsTheWindowAliveButBlocked();
    void notWaitedReturnsAtOnceAndTheDelegateGetsTheAnswer();
    void theDelegateFormAlwaysWaitsAndAnswersItself();
    void aDelegateWithoutTheSelectorShowsNothing();
    void aWindowThatAlreadyShowsASheetGetsAFreeStandingAlert();
    void textsAreShownLiterally();
    void theSuppressionBoxIsBoundToTheUserDefaults();
    void aTimedAlertLeftAloneAnswersWithTheDefaultButton();
    void aTimedAlertAnsweredFirstKeepsTheUsersAnswer();

private:
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

void HXAlertQtTest::initTestCase()
{
    HXUserDefaults::standardUserDefaults().setPath(
        m_prefs.filePath(QStringLiteral("com.lanternfish.Mendwell.plist")));
    m_window = std::make_unique<QMainWindow>();
    m_window->resize(640, 420);
    m_windowButton = new QPushButton(QStringLiteral("Repair"));
    m_window->setCentralWidget(m_windowButton);
    connect(m_windowButton, &QPushButton::clicked, this, [this] { ++m_windowClicks; });
    m_window->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_window.get()));
}

void HXAlertQtTest::cleanup()
{
    for (QMessageBox *box : visibleAlerts())
        box->close();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(visibleAlerts().isEmpty());
}

void HXAlertQtTest::waitedFromAWorkerThreadGivesEachButtonsCode()
{
    const QList<std::pair<QString, qint64>> answers{
        {QStringLiteral("Repair"), 1}, {QStringLiteral("Cancel"), 0}, {QStringLiteral("Later"), -1}};
    for (const auto &[title, code] : answers) {
        QWidget *window = m_window.get();
        Worker worker([window] {
            return HXAlert::alertSheetWithMessageText(
                QStringLiteral("Repair now?"), QStringLiteral("Repair"), QStringLiteral("Cancel"),
                QStringLiteral("Later"), QStringLiteral("Premiere Pro must quit first."), window, true);
        });
        QMessageBox *box = waitForAlert();
        QCOMPARE(box->parentWidget(), m_window.get());
        QCOMPARE(box->windowModality(), Qt::WindowModal);
        QCOMPARE(buttonTitles(box), (QStringList{"Cancel", "Later", "Repair"}));
        QCOMPARE(box->defaultButton(), buttonTitled(box, QStringLiteral("Repair")));
        QVERIFY(!worker.done());
        buttonTitled(box, title)->click();
        QCOMPARE(worker.result(), code);
        QVERIFY2(visibleAlerts().isEmpty(), "the alert is ordered out");
    }
}

void HXAlertQtTest::waitedOnTheMainThreadKeepsTheWindowAliveButBlocked()
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
        QCOMPARE(alerts.constFirst()->text(), QStringLiteral("Processing complete"));
        buttonTitled(alerts.constFirst(), QStringLiteral("OK"))->click();
    });
    answerer.start(10);

    const qint64 code = HXAlert::alertSheetWithMessageText(
        QStringLiteral("Processing complete"), QStringLiteral("No errors were found."), m_window.get());
    QCOMPARE(code, HXAlert::kDefaultReturn);
    QVERIFY(windowBlocked);
    QVERIFY(visibleAlerts().isEmpty());

    // With the sheet gone the window takes clicks again.
    const int before = m_windowClicks;
    clickWindowButton();
    QCOMPARE(m_windowClicks, before + 1);
}

void HXAlertQtTest::notWaitedReturnsAtOnceAndTheDelegateGetsTheAnswer()
{
    AnswerRecorder recorder;
    const qint64 code = HXAlert::alertSheetWithMessageText(
        QStringLiteral("Trash layouts?"), QStringLiteral("Trash"), QStringLiteral("Keep"), std::nullopt,
        std::nullopt, m_window.get(), &recorder, "sheetDidEnd", false, nullptr);
    QCOMPARE(code, -1);
    QMessageBox *box = waitForAlert();
    QCOMPARE(buttonTitles(box), (QStringList{"Keep", "Trash"}));
    QVERIFY(recorder.codes.isEmpty());
    buttonTitled(box, QStringLiteral("Keep"))->click();
    QCOMPARE(recorder.codes, (QList<qint64>{0}));
    QVERIFY(recorder.sawAlert);

    // Without a delegate the alert answers itself, and nobody is left waiting.
    auto alone = HXAlert::create();
    QCOMPARE(HXAlert::alertSheetWithMessageText(QStringLiteral("Done"), std::nullopt, std::nullopt,
                                                std::nullopt, std::nullopt, m_window.get(), nullptr, nullptr,
                                                false, alone),
             -1);
    buttonTitled(waitForAlert(), QStringLiteral("OK"))->click();
    QVERIFY(alone->alertEnded());
    QCOMPARE(alone->returnCode(), HXAlert::kDefaultReturn);
    QCOMPARE(alone->delegate(), alone.get());
}

void HXAlertQtTest::theDelegateFormAlwaysWaitsAndAnswersItself()
{
    AnswerRecorder recorder;
    QWidget *window = m_window.get();
    Worker withDelegate([window, &recorder] {
        return HXAlert::alertSheetWithMessageText(
            QStringLiteral("Quit Premiere Pro?"), QStringLiteral("Quit"), QStringLiteral("Cancel"),
            std::nullopt, std::nullopt, window, &recorder, "sheetDidEnd", false);
    });
    QMessageBox *box = waitForAlert();
    QTest::qWait(300);
    QVERIFY2(!withDelegate.done(), "waits although the caller said not to");
    buttonTitled(box, QStringLiteral("Cancel"))->click();
    QCOMPARE(withDelegate.result(), HXAlert::kAlternateReturn);
    QVERIFY(recorder.codes.isEmpty());

    // The short form with a block flag goes the same way.
    Worker shortForm([window] {
        return HXAlert::alertSheetWithMessageText(QStringLiteral("Done"), std::nullopt, std::nullopt,
                                                  std::nullopt, std::nullopt, window, false);
    });
    buttonTitled(waitForAlert(), QStringLiteral("OK"))->click();
    QCOMPARE(shortForm.result(), HXAlert::kDefaultReturn);
}

void HXAlertQtTest::aDelegateWithoutTheSelectorShowsNothing()
{
    AnswerRecorder recorder;
    StderrCapture capture;
    const qint64 code = HXAlert::alertSheetWithMessageText(
        QStringLiteral("Never shown"), std::nullopt, std::nullopt, std::nullopt, std::nullopt, m_window.get(),
        &recorder, "noSuchHandler", true, nullptr);
    const QString console = capture.text();
    QCOMPARE(code, -1);
    QTest::qWait(50);
    QVERIFY(visibleAlerts().isEmpty());
    QVERIFY2(console.contains(
                 QStringLiteral("] Alert error: delegate does not respond to selector noSuchHandler\n")),
             qPrintable(console));
}

void HXAlertQtTest::aWindowThatAlreadyShowsASheetGetsAFreeStandingAlert()
{
    auto first = HXAlert::create();
    QCOMPARE(HXAlert::alertSheetWithMessageText(QStringLiteral("First"), std::nullopt, std::nullopt,
                                                std::nullopt, std::nullopt, m_window.get(), nullptr, nullptr,
                                                false, first),
             -1);
    auto second = HXAlert::create();
    QCOMPARE(HXAlert::alertSheetWithMessageText(QStringLiteral("Second"), std::nullopt, std::nullopt,
                                                std::nullopt, std::nullopt, m_window.get(), nullptr, nullptr,
                                                false, second),
             -1);
    waitUntil([] { return visibleAlerts().size() == 2; });

    QCOMPARE(first->parentWindow(), m_window.get());
    QCOMPARE(first->alert()->parentWidget(), m_window.get());
    QCOMPARE(first->alert()->windowModality(), Qt::WindowModal);
    QCOMPARE(second->parentWindow(), nullptr);
    QCOMPARE(second->alert()->parentWidget(), nullptr);
    QCOMPARE(second->alert()->windowModality(), Qt::ApplicationModal);

    buttonTitled(second->alert(), QStringLiteral("OK"))->click();
    buttonTitled(first->alert(), QStringLiteral("OK"))->click();
    QVERIFY(first->alertEnded() && second->alertEnded());
    QCOMPARE(first->returnCode(), 1);
}

void HXAlertQtTest::textsAreShownLiterally()
{
    auto alert = HXAlert::create();
    const QString informative = QStringLiteral("Copied 100% of %d files to %@ <b>now</b>");
    HXAlert::alertSheetWithMessageText(std::nullopt, std::nullopt, std::nullopt, std::nullopt, informative,
                                       m_window.get(), nullptr, nullptr, false, alert);
    QMessageBox *box = waitForAlert();
    QCOMPARE(box->text(), QString());
    QCOMPARE(box->informativeText(), informative);
    auto *label = box->findChild<QLabel *>(QStringLiteral("qt_msgbox_informativelabel"));
    QVERIFY(label != nullptr);
    QCOMPARE(label->textFormat(), Qt::PlainText);
    QCOMPARE(buttonTitles(box), QStringList{QStringLiteral("OK")});
    QCOMPARE(box->checkBox(), nullptr);
    buttonTitled(box, QStringLiteral("OK"))->click();
}

void HXAlertQtTest::theSuppressionBoxIsBoundToTheUserDefaults()
{
    const QString key = QStringLiteral("hideQuitWarning");
    for (const bool expectedAtStart : {false, true}) {
        AnswerRecorder recorder;
        HXAlert::alertSheetWithMessageText(QStringLiteral("Premiere Pro is running"), std::nullopt,
                                           std::nullopt, std::nullopt, std::nullopt, m_window.get(),
                                           &recorder, "sheetDidEnd", false, nullptr, key);
        QMessageBox *box = waitForAlert();
        QCheckBox *suppression = box->checkBox();
        QVERIFY(suppression != nullptr);
        QCOMPARE(suppression->text(), QStringLiteral("Do not show this message again"));
        QCOMPARE(suppression->isChecked(), expectedAtStart);
        if (!expectedAtStart) {
            suppression->click();
            const QVariantMap stored =
                PropertyList::readDictionary(HXUserDefaults::standardUserDefaults().path());
            QCOMPARE(stored.value(key), QVariant(true));
        }
        buttonTitled(box, QStringLiteral("OK"))->click();
        QCOMPARE(recorder.codes, (QList<qint64>{1}));
    }
}

void HXAlertQtTest::aTimedAlertLeftAloneAnswersWithTheDefaultButton()
{
    // From the main thread, which pumps events while it waits...
    bool seen = false;
    QTimer watcher;
    connect(&watcher, &QTimer::timeout, this, [&] { seen = seen || !visibleAlerts().isEmpty(); });
    watcher.start(10);
    QCOMPARE(HXAlert::timedAlertSheetWithMessageText(QStringLiteral("Repair starts soon"),
                                                     QStringLiteral("Start"), QStringLiteral("Cancel"),
                                                     std::nullopt, std::nullopt, m_window.get(), 1s),
             HXAlert::kDefaultReturn);
    watcher.stop();
    QVERIFY(seen);
    QVERIFY2(visibleAlerts().isEmpty(), "the timed-out alert is ordered out");

    // ...and from a worker, which polls.
    QWidget *window = m_window.get();
    Worker worker([window] {
        return HXAlert::timedAlertSheetWithMessageText(QStringLiteral("Repair starts soon"), std::nullopt,
                                                       QStringLiteral("Cancel"), std::nullopt, std::nullopt,
                                                       window, 1s);
    });
    QMessageBox *box = waitForAlert();
    QCOMPARE(box->parentWidget(), m_window.get());
    QCOMPARE(worker.result(), HXAlert::kDefaultReturn);
    QVERIFY(visibleAlerts().isEmpty());
}

void HXAlertQtTest::aTimedAlertAnsweredFirstKeepsTheUsersAnswer()
{
    QWidget *window = m_window.get();
    Worker worker([window] {
        return HXAlert::timedAlertSheetWithMessageText(QStringLiteral("Trash preferences?"),
                                                       QStringLiteral("Trash"), QStringLiteral("Keep"),
                                                       std::nullopt, std::nullopt, window, 1s);
    });
    buttonTitled(waitForAlert(), QStringLiteral("Keep"))->click();
    QCOMPARE(worker.result(), HXAlert::kAlternateReturn);
    // The timer still fires into the finished alert; that must stay harmless.
    QTest::qWait(1500);
    QVERIFY(visibleAlerts().isEmpty());
}

QTEST_MAIN(HXAlertQtTest)
#include "HXAlertQtTest.moc"
