// Shortcut keys in process: what the capture field records, the names keys get
// on a pinned layout and on a display's as it is switched, the table's delete
// keys, and a panel whose interface file is missing (this program lies in no
// bundle). The panel on a real bundle, the bindings file and the manager are
// tested in the sandbox (ShortcutKeysTest).

#include "system/HXNotificationCenter.h"
#include "tests/support/StderrCapture.h"
#include "tests/support/TestDisplay.h"
#include "ui/HXShortcutKeyContainerView.h"
#include "ui/HXShortcutKeyFieldEditor.h"
#include "ui/HXShortcutKeyItemDelegate.h"
#include "ui/HXShortcutKeyTableDelegate.h"
#include "ui/HXShortcutKeyTableview.h"

#include <QApplication>
#include <QKeyEvent>
#include <QLineEdit>
#include <QProcess>
#include <QTest>

#include <xcb/xcb.h>
// xcb's XKB header names a field "explicit", which C++ reserves.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit

#include <cstdlib>

namespace {

// The notifications named NAME posted while alive.
class Recorder {
public:
    explicit Recorder(const char *name)
        : m_id(HXNotificationCenter::defaultCenter().addObserver(
              QString::fromLatin1(name), [this](const HXNotification &n) { posted.append(n.userInfo); }))
    {
    }
    ~Recorder() { HXNotificationCenter::defaultCenter().removeObserver(m_id); }

    QList<QVariantMap> posted;

private:
    HXNotificationCenter::ObserverId m_id;
};

QVariantMap pressIn(QWidget &widget, int key, Qt::KeyboardModifiers modifiers, quint32 keyCode)
{
    Recorder changes(HXShortcutKeyTableDelegate::kKeyChangedNotification);
    QKeyEvent event(QEvent::KeyPress, key, modifiers, keyCode, 0, 0);
    QApplication::sendEvent(&widget, &event);
    return changes.posted.value(0);
}

QVariantMap recorded(int keyCode, bool shift, bool ctrl, bool opt, bool cmd)
{
    return {{QStringLiteral("keycode"), keyCode},
            {QStringLiteral("shift"), shift},
            {QStringLiteral("ctrl"), ctrl},
            {QStringLiteral("opt"), opt},
            {QStringLiteral("cmd"), cmd}};
}

}  // namespace

class HXShortcutKeysQtTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The layout is pinned, whatever the machine's keyboard: no display, the default "us".
    void initTestCase()
    {
        for (const char *name : {"DISPLAY", "XKB_DEFAULT_RULES", "XKB_DEFAULT_MODEL", "XKB_DEFAULT_VARIANT",
                                 "XKB_DEFAULT_OPTIONS"})
            qunsetenv(name);
        qputenv("XKB_DEFAULT_LAYOUT", "us");
    }

    void theCaptureFieldRecordsABareKeyWithShiftAndCmd()
    {
        QWidget window;
        auto *field = new HXShortcutKeyFieldEditor(&window);
        new QLineEdit(&window);
        window.show();
        field->setFocus();
        // As the table installs its editing delegate on its editor.
        HXShortcutKeyItemDelegate delegate(HXShortcutKeyTableDelegate::sharedController());
        field->installEventFilter(&delegate);

        QCOMPARE(pressIn(*field, Qt::Key_A, Qt::NoModifier, 38), recorded(38, true, false, false, true));
        QCOMPARE(HXShortcutKeyTableDelegate::nameForKeyCode(38, 512 + 256), QStringLiteral("Shift+Cmd+A"));

        const Qt::KeyboardModifiers all =
            Qt::ControlModifier | Qt::ShiftModifier | Qt::AltModifier | Qt::MetaModifier;
        QCOMPARE(pressIn(*field, Qt::Key_A, all, 38), recorded(38, true, true, true, true));
        QCOMPARE(HXShortcutKeyTableDelegate::nameForKeyCode(38, 4096 + 2048 + 512 + 256),
                 QStringLiteral("Ctrl+Shift+Alt+Cmd+A"));

        // Tab and Escape are recorded, not taken for a move to the next field or
        // the end of the edit; a modifier alone is no key.
        QCOMPARE(pressIn(*field, Qt::Key_Tab, Qt::NoModifier, 23), recorded(23, true, false, false, true));
        QCOMPARE(pressIn(*field, Qt::Key_Escape, Qt::NoModifier, 9), recorded(9, true, false, false, true));
        QVERIFY(pressIn(*field, Qt::Key_Shift, Qt::ShiftModifier, 50).isEmpty());
        QVERIFY(field->text().isEmpty());
    }

    void keysAreNamedOnTheCurrentLayout_data()
    {
        QTest::addColumn<QByteArray>("layout");
        QTest::addColumn<int>("keyCode");
        QTest::addColumn<QString>("name");
        QTest::newRow("space bar") << QByteArray("us") << 65 << QStringLiteral("Space");
        QTest::newRow("return") << QByteArray("us") << 36 << QStringLiteral("Return");
        QTest::newRow("keypad enter") << QByteArray("us") << 104 << QStringLiteral("Enter");
        QTest::newRow("up") << QByteArray("us") << 111 << QStringLiteral("Up Arrow");
        QTest::newRow("keypad page down") << QByteArray("us") << 89 << QStringLiteral("Page Down");
        QTest::newRow("backspace") << QByteArray("us") << 22 << QStringLiteral("Backspace");
        QTest::newRow("forward delete") << QByteArray("us") << 119 << QStringLiteral("Delete");
        QTest::newRow("german z") << QByteArray("de") << 29 << QStringLiteral("Z");
    }

    void keysAreNamedOnTheCurrentLayout()
    {
        QFETCH(QByteArray, layout);
        QFETCH(int, keyCode);
        QFETCH(QString, name);
        qputenv("XKB_DEFAULT_LAYOUT", layout);
        const QString shown = HXShortcutKeyTableDelegate::nameForKeyCode(keyCode, 0);
        qputenv("XKB_DEFAULT_LAYOUT", "us");
        QCOMPARE(shown, name);
    }

    // With a display, the layout it has now counts, over the default one.
    void keysAreNamedOnTheDisplaysLayoutAsItIsSwitched()
    {
        TestDisplay display;
        QVERIFY(display.isRunning());
        qputenv("DISPLAY", display.display().toLatin1());
        QStringList names;
        for (const char *layout : {"de", "us", "de", "us,de"}) {
            QCOMPARE(QProcess::execute(QStringLiteral("setxkbmap"), {QString::fromLatin1(layout)}), 0);
            names << HXShortcutKeyTableDelegate::nameForKeyCode(29, 0);
        }
        // The second layout of two locked, as a layout switcher does.
        xcb_connection_t *connection = xcb_connect(nullptr, nullptr);
        std::free(xcb_xkb_use_extension_reply(connection, xcb_xkb_use_extension(connection, 1, 0), nullptr));
        std::free(xcb_request_check(connection,
                                    xcb_xkb_latch_lock_state_checked(connection, XCB_XKB_ID_USE_CORE_KBD, 0,
                                                                     0, true, 1, 0, false, 0)));
        xcb_disconnect(connection);
        names << HXShortcutKeyTableDelegate::nameForKeyCode(29, 0);
        qunsetenv("DISPLAY");
        names << HXShortcutKeyTableDelegate::nameForKeyCode(29, 0);
        QCOMPARE(names, (QStringList{"Z", "Y", "Z", "Y", "Z", "Y"}));
    }

    void anUntranslatableKeyIsLoggedAndNamedNull()
    {
        StderrCapture console;
        QCOMPARE(HXShortcutKeyTableDelegate::nameForKeyCode(2, 4096), QStringLiteral("Ctrl+(null)"));
        QCOMPARE(HXShortcutKeyTableDelegate::nameForKeyCode(50, 0), QStringLiteral("(null)"));
        const QString logged = console.text();
        QVERIFY2(logged.contains(
                     QStringLiteral("There was an paramErr error translating from the '-50' key code to "
                                    "a human readable string: error in user parameter list")),
                 qPrintable(logged));
        QVERIFY2(logged.contains(QStringLiteral("Couldn't find a translation for the '50' key code")),
                 qPrintable(logged));
    }

    void theTableTurnsDeleteKeysIntoAClearRequest()
    {
        HXShortcutKeyTableview table;
        Recorder clears(HXShortcutKeyTableDelegate::kKeyClearedNotification);
        for (int key : {Qt::Key_Backspace, Qt::Key_Delete, Qt::Key_Clear, Qt::Key_Down, Qt::Key_A}) {
            QKeyEvent event(QEvent::KeyPress, key, Qt::ShiftModifier);
            QApplication::sendEvent(&table, &event);
        }
        QCOMPARE(clears.posted.size(), 3);
    }

    void aPanelThatCannotBeLoadedStaysEmpty()
    {
        StderrCapture console;
        QWidget window;
        auto *container = new HXShortcutKeyContainerView(&window);
        QVERIFY(console.text().contains(QStringLiteral("Error: unable to load keyboard shortcut interface")));
        QVERIFY(container->children().size() == 1);  // its layout only
        QVERIFY(HXShortcutKeyTableDelegate::sharedController().parentView() == nullptr);
    }
};

QTEST_MAIN(HXShortcutKeysQtTest)
#include "HXShortcutKeysQtTest.moc"
