#include "ui/HXInterfaceFile.h"

#include "ui/HXShortcutKeyContainerView.h"
#include "ui/HXShortcutKeyTableview.h"

#include <QFile>
#include <QUiLoader>
#include <QWidget>

namespace {

class SuiteLoader : public QUiLoader {
public:
    QWidget *createWidget(const QString &className, QWidget *parent, const QString &name) override
    {
        QWidget *widget = nullptr;
        if (className == QLatin1String("HXShortcutKeyContainerView"))
            widget = new HXShortcutKeyContainerView(parent);
        else if (className == QLatin1String("HXShortcutKeyTableview"))
            widget = new HXShortcutKeyTableview(parent);
        else
            return QUiLoader::createWidget(className, parent, name);
        widget->setObjectName(name);
        return widget;
    }
};

}  // namespace

QWidget *HXInterfaceFile::load(const HXBundle &bundle, const QString &name, QWidget *parent)
{
    QFile file(bundle.resourcePath() + QLatin1Char('/') + name + QStringLiteral(".ui"));
    if (!file.open(QIODevice::ReadOnly))
        return nullptr;
    SuiteLoader loader;
    return loader.load(&file, parent);
}
