// The Help menu: the user manual, the suite's and the maker's web pages, and the
// log tools; and the one utility for running a tool to read its complaints.

#include "app/HXAppController.h"
#include "app/HXTroubleshootingUtils.h"

#include "diagnostics/HXException.h"
#include "system/HXBundle.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXWorkspace.h"

#include <QFileInfo>
#include <QProcess>
#include <QUrl>

#include <exception>
#include <stdexcept>

namespace {

const QString kAppName = QStringLiteral("Mendwell");

// The addresses are the bundle's configuration (Info.plist), set at build time.
QString address(const char *key)
{
    return HXBundle::mainBundle().objectForInfoDictionaryKey(QLatin1String(key)).toString();
}

QString shortName()
{
    const QVariant name = HXBundle::mainBundle().objectForInfoDictionaryKey(QStringLiteral("HXShortName"));
    return name.isValid() ? name.toString() : QStringLiteral("kestrelkit");
}

// What the platform's "add percent escapes" leaves alone: every character that
// may stand in an address.
QString addingPercentEscapes(const QString &text)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(text, "!#$&'()*+,/:;=?@[]~"));
}

}  // namespace

void HXAppController::helpUserManual()
{
    const QString manual =
        HXPath::appendingComponent(HXLocalPaths::libraryDirectory(false),
                                   QStringLiteral("Documentation/Lanternfish/Kestrelkit User Manual.pdf"));
    if (QFileInfo::exists(manual))
        HXWorkspace::openFile(manual);
}

void HXAppController::helpHome()
{
    HXWorkspace::openURL(address("HXSuiteHomeURL"));
}

void HXAppController::helpMarlin()
{
    HXWorkspace::openURL(address("HXSuiteHomeURL") + QLatin1Char('/'));
}

void HXAppController::helpReportBug()
{
    const QString version = HXBundle::mainBundle()
                                .objectForInfoDictionaryKey(QStringLiteral("CFBundleShortVersionString"))
                                .toString();
    HXWorkspace::openURL(HXFormat(u"%@/kestrelkit/bugreport?app=%@&version=%@", address("HXSupportURL"),
                                  shortName(), addingPercentEscapes(version)));
}

void HXAppController::helpSuggestFeature()
{
    HXWorkspace::openURL(
        HXFormat(u"%@/kestrelkit/featurerequest?app=%@", address("HXSupportURL"), shortName()));
}

void HXAppController::helpSupport()
{
    HXWorkspace::openURL(address("HXSupportURL") + QStringLiteral("/kestrelkit/"));
}

void HXAppController::helpHXHome()
{
    HXWorkspace::openURL(address("HXMakerHomeURL"));
}

void HXAppController::viewLog()
{
    HXTroubleshootingUtils::viewLogForApp(kAppName);
}

void HXAppController::viewTaskLog()
{
    HXTroubleshootingUtils::viewTaskLogForApp(kAppName);
}

void HXAppController::gatherLogs()
{
    HXTroubleshootingUtils::gatherLogsForAppWithName(kAppName);
}

void HXAppController::manualUpdateCheck()
{
    m_softwareUpdate.manualUpdateCheck();
}

std::optional<QString> HXAppController::returnTaskOutputWithTool(const QString &tool,
                                                                 const QStringList &arguments)
{
    try {
        QProcess task;
        task.setStandardOutputFile(QProcess::nullDevice());
        task.start(tool, arguments);
        task.waitForFinished(-1);
        if (task.error() == QProcess::FailedToStart)
            throw std::runtime_error("launch path not accessible");
        if (task.exitStatus() == QProcess::NormalExit && task.exitCode() == 0)
            return std::nullopt;
        return QString::fromUtf8(task.readAllStandardError());
    } catch (const std::exception &exception) {
        HXException::logException(exception, "-[HXAppController returnTaskOutputWithTool:arguments:]");
        return std::nullopt;
    }
}
