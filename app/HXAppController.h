#pragma once

// The application controller. This build has the command-line form; the window
// and its console arrive with the windowed mode.

#include <QString>

#include <memory>

class HXAppController {
public:
    // The controller of the command-line repair: task log "Mendwell.task", no window.
    static std::unique_ptr<HXAppController> initWithoutGUI();

    void startRepair(bool trashPreferences, bool trashWorkspaces, bool silent);

    bool hasGUI() const { return m_hasGUI; }
    void setHasGUI(bool hasGUI);

    static QString currentBundlePath();
    static QString currentExePath();

private:
    HXAppController() = default;

    bool m_hasGUI = false;
};
