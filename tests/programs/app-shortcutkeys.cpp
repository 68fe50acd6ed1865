// The shortcut-key panel of the main bundle, used as a person would, from inside
// Mendwell.app:
//   app-shortcutkeys show                      prints the panel
//   app-shortcutkeys press ROW KEYCODE [MODS]  double-clicks ROW and presses KEYCODE
//                                              (an X11 key code) in the capture field
//                                              with MODS held (letters of "csam":
//                                              Ctrl, Shift, Alt, Meta)
//   app-shortcutkeys clear ROW|none            selects ROW (or nothing) and presses
//                                              Backspace in the table
//   app-shortcutkeys set ID KEYCODE MODIFIERS  binds command ID through the controller
// then prints the panel: whether the table is enabled, the warning shown, a capture
// field still open, the reload notices seen on the session bus, and one line per row
// ("description | key name", "+icon" when the row shows the application's icon).

#include "system/HXDistributedNotificationCenter.h"
#include "system/HXSessionBus.h"
#include "ui/HXShortcutKeyContainerView.h"
#include "ui/HXShortcutKeyFieldEditor.h"
#include "ui/HXShortcutKeyTableDelegate.h"
#include "ui/HXShortcutKeyTableview.h"

#include <QApplication>
#include <QIcon>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QVBoxLayout>

#include <cstdio>

namespace {

void sendMouse(QWidget *widget, QEvent::Type type, QPoint at)
{
    const Qt::MouseButtons held = type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, at, widget->mapToGlobal(at), Qt::LeftButton, held, Qt::NoModifier);
    QApplication::sendEvent(widget, &event);
}

void doubleClick(QWidget *widget, QPoint at)
{
    for (QEvent::Type type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease,
                              QEvent::MouseButtonDblClick, QEvent::MouseButtonRelease})
        sendMouse(widget, type, at);
}

Qt::KeyboardModifiers modifiersNamed(const QString &letters)
{
    Qt::KeyboardModifiers modifiers;
    if (letters.contains(QLatin1Char('c')))
        modifiers |= Qt::ControlModifier;
    if (letters.contains(QLatin1Char('s')))
        modifiers |= Qt::ShiftModifier;
    if (letters.contains(QLatin1Char('a')))
        modifiers |= Qt::AltModifier;
    if (letters.contains(QLatin1Char('m')))
        modifiers |= Qt::MetaModifier;
    return modifiers;
}

bool press(HXShortcutKeyTableview *table, int row, quint32 keyCode, Qt::KeyboardModifiers modifiers)
{
    doubleClick(table->viewport(), table->visualRect(table->model()->index(row, 0)).center());
    auto *field = table->viewport()->findChild<HXShortcutKeyFieldEditor *>();
    if (field == nullptr || !field->isVisible())
        return false;
    QKeyEvent key(QEvent::KeyPress, Qt::Key_unknown, modifiers, keyCode, 0, 0);
    QApplication::sendEvent(field, &key);
    return true;
}

void clear(HXShortcutKeyTableview *table, const QString &row)
{
    if (row == u"none")
        table->clearSelection();
    else
        table->selectRow(row.toInt());
    QKeyEvent backspace(QEvent::KeyPress, Qt::Key_Backspace, Qt::NoModifier);
    QApplication::sendEvent(table, &backspace);
}

void printPanel(HXShortcutKeyTableDelegate &controller, int reloads)
{
    HXShortcutKeyTableview *table = controller.shortcutKeyTableView();
    auto *field = table->viewport()->findChild<HXShortcutKeyFieldEditor *>();
    std::printf("table %s\nwarning %s\nediting %s\nreloads %d\n", table->isEnabled() ? "enabled" : "disabled",
                controller.versionAlertText()->isVisible() ? "shown" : "hidden",
                field != nullptr && field->isVisible() ? "yes" : "no", reloads);
    const QAbstractItemModel *model = table->model();
    for (int row = 0; row < model->rowCount(); ++row) {
        const bool icon = !model->index(row, 0).data(Qt::DecorationRole).value<QIcon>().isNull();
        std::printf("%s | %s%s\n", qPrintable(model->index(row, 0).data().toString()),
                    qPrintable(model->index(row, 1).data().toString()), icon ? " +icon" : "");
    }
}

}  // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    const QStringList arguments = QApplication::arguments().mid(1);
    const QString command = arguments.value(0);

    int reloads = 0;
    const bool onBus =
        HXDistributedNotificationCenter::defaultCenter().addObserver(
            QStringLiteral("HXShortcutKeysReload"), [&reloads](const HXNotification &) { ++reloads; }) != 0;

    QWidget window;
    auto *layout = new QVBoxLayout(&window);
    layout->addWidget(new HXShortcutKeyContainerView(&window));
    window.resize(480, 300);
    window.show();
    QApplication::processEvents();

    HXShortcutKeyTableDelegate &controller = HXShortcutKeyTableDelegate::sharedController();
    HXShortcutKeyTableview *table = controller.shortcutKeyTableView();
    if (table == nullptr) {
        std::fprintf(stderr, "no panel\n");
        return 1;
    }
    if (command == u"press" && arguments.size() >= 3) {
        if (!press(table, arguments[1].toInt(), arguments[2].toUInt(), modifiersNamed(arguments.value(3)))) {
            std::fprintf(stderr, "no capture field\n");
            return 1;
        }
    } else if (command == u"clear" && arguments.size() == 2) {
        clear(table, arguments[1]);
    } else if (command == u"set" && arguments.size() == 4) {
        const unsigned modifiers = arguments[3].toUInt();
        controller.setKeyboardShortcutWithID(arguments[1], std::nullopt, arguments[2].toUInt(),
                                             modifiers & 0x200, modifiers & 0x100, modifiers & 0x800,
                                             modifiers & 0x1000);
    } else if (command != u"show") {
        std::fprintf(stderr, "usage: app-shortcutkeys show | press ROW KEYCODE [MODS] | clear ROW|none | "
                             "set ID KEYCODE MODIFIERS\n");
        return 2;
    }
    // A change is announced on the session bus, this program included: once the
    // bus has answered after it, the notice is on its way in.
    if (onBus && command != u"show" && HXSessionBus::flush())
        for (int round = 0; round < 20; ++round)
            QApplication::processEvents(QEventLoop::AllEvents, 10);
    printPanel(controller, reloads);
    return 0;
}
