#include "ui/HXShortcutKeyContainerView.h"

#include "platform/Platform.h"
#include "system/HXBundle.h"
#include "ui/HXInterfaceFile.h"
#include "ui/HXShortcutKeyTableDelegate.h"

#include <QVBoxLayout>

HXShortcutKeyContainerView::HXShortcutKeyContainerView(QWidget *parent) : QWidget(parent)
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    QWidget *panel =
        HXInterfaceFile::load(HXBundle::mainBundle(), QStringLiteral("HXShortcutKeyConfig"), this);
    if (panel == nullptr) {
        platform::systemLog(QStringLiteral("Error: unable to load keyboard shortcut interface"));
        return;
    }
    HXShortcutKeyTableDelegate::sharedController().awakeFromNib(panel);
    layout->addWidget(panel);
}
