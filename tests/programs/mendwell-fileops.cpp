// Runs one HXFileManager operation from the command line, so tests can run it
// as a real process in the sandbox as root or as the console user. Prints the
// result ("YES"/"NO", or one path per line) and exits 0 for YES.
//   trash PATH [noauth]          remove PATH [noauth]       mkdir PATH [noauth]
//   move FROM TO [noauth]        copy FROM TO [noauth]
//   trashtype TYPE FOLDER        trashnamed NAME FOLDER     trashcontents FOLDER
//   zip FROM TO [noparent]       unzip ZIP FOLDER           trashfolder
//   isempty FOLDER               copycontents FROM TO       touch PATH
// With "throwing", whatever trashes an item meets an exception on the way.

#include "diagnostics/HXLog.h"
#include "fs/HXFileManager.h"
#include "system/HXLocalPaths.h"

#include <QCoreApplication>

#include <cstdio>
#include <stdexcept>

namespace {

int report(bool result)
{
    std::printf("%s\n", result ? "YES" : "NO");
    return result ? 0 : 1;
}

int report(const QStringList &paths)
{
    for (const QString &path : paths)
        std::printf("%s\n", path.toUtf8().constData());
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.isEmpty())
        return 2;
    HXLog::createNewLog(QStringLiteral("mendwell-fileops"));
    const QString command = args.at(0);
    auto arg = [&](int index) { return index < args.size() ? args.at(index) : QString(); };
    const bool auth = !args.contains(QStringLiteral("noauth"));
    if (args.contains(QStringLiteral("throwing")))
        HXFileManager::setTrashObserver([](const QString &, const QString &, const QString &) {
            throw std::runtime_error("observer failed");
        });
    int status = 2;
    if (command == QLatin1String("trash"))
        status = report(HXFileManager::trashFile(arg(1), auth));
    else if (command == QLatin1String("remove"))
        status = report(HXFileManager::removeFile(arg(1), auth));
    else if (command == QLatin1String("mkdir"))
        status = report(HXFileManager::createDirectory(arg(1), auth));
    else if (command == QLatin1String("move"))
        status = report(HXFileManager::moveFile(arg(1), arg(2), auth));
    else if (command == QLatin1String("copy"))
        status = report(HXFileManager::copyFile(arg(1), arg(2), auth));
    else if (command == QLatin1String("trashtype"))
        status = report(HXFileManager::trashFilesOfType(arg(1), arg(2)));
    else if (command == QLatin1String("trashnamed"))
        status = report(HXFileManager::trashFilesNamed(arg(1), arg(2)));
    else if (command == QLatin1String("trashcontents"))
        status = report(HXFileManager::trashDirectoryContents(arg(1)));
    else if (command == QLatin1String("zip"))
        status = report(HXFileManager::compressFile(arg(1), arg(2), arg(3) != QLatin1String("noparent")));
    else if (command == QLatin1String("unzip"))
        status = report(HXFileManager::decompressFile(arg(1), arg(2)));
    else if (command == QLatin1String("isempty"))
        status = report(HXFileManager::isFolderEmpty(arg(1)));
    else if (command == QLatin1String("copycontents"))
        status = report(HXFileManager::copyContentsOfDirectory(arg(1), arg(2), std::chrono::seconds(5)));
    else if (command == QLatin1String("touch"))
        status = report(HXFileManager::touchFile(arg(1)));
    else if (command == QLatin1String("trashfolder"))
        status = report(QStringList{HXLocalPaths::trashDirectory()});
    HXLog::finishWriting();
    return status;
}
