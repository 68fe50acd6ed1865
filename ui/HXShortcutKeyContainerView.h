#pragma once

// A placeholder any preferences window can hold (also from its own interface
// file): it loads the shortcut-key panel ("HXShortcutKeyConfig.ui" in the main
// bundle's Resources) for the shared HXShortcutKeyTableDelegate and shows it
// filling its own bounds. When the file cannot be loaded it says so on the system
// console and stays empty.

#include <QWidget>

class HXShortcutKeyContainerView : public QWidget {
    Q_OBJECT
public:
    explicit HXShortcutKeyContainerView(QWidget *parent = nullptr);
};
