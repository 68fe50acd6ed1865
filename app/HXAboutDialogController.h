#pragma once

// The About window: the program's icon, name, version and build, the suite's
// version and, when the bundle carries them, the credits. The window comes from
// the interface file "HXAbout" in the bundle's Resources.

#include "system/HXBundle.h"

#include <QDialog>
#include <QFrame>
#include <QLabel>
#include <QPointer>
#include <QTextBrowser>

#include <memory>

class HXAboutDialogController {
public:
    // Loads "HXAbout.ui" from BUNDLE's Resources and fills the window from BUNDLE;
    // none when the interface file cannot be loaded.
    static std::unique_ptr<HXAboutDialogController> load(const HXBundle &bundle, QWidget *parent = nullptr);

    ~HXAboutDialogController();

    QDialog *aboutWindow() const { return m_aboutWindow; }

    // Fills the loaded window; an exception is logged and leaves it as far as it got.
    void awakeFromNib();

private:
    explicit HXAboutDialogController(HXBundle bundle) : m_bundle(std::move(bundle)) {}

    HXBundle m_bundle;
    QPointer<QLabel> m_appNameLabel;
    QPointer<QLabel> m_verLabel;
    QPointer<QLabel> m_appIconView;
    QPointer<QFrame> m_creditsScrollView;
    QPointer<QTextBrowser> m_creditsTextView;
    QPointer<QDialog> m_aboutWindow;
};
