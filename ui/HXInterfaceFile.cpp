#include "ui/HXInterfaceFile.h"

#include <QFile>
#include <QUiLoader>
#include <QWidget>

namespace {

class SuiteLoader : public QUiLoader {
public:
    QWidget *createWidget(const QString &className, QWidget *parent, const QString &name) override
    {
        if (className == QLatin1String("HXShortcutKeyContainerView")) {
            auto *view = new QWidget(parent);
            view->setObjectName(name);
            return view;
        }
        return QUiLoader::createWidget(className, parent, name);
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
