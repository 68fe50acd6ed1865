// Trashing many small files: HXFileManager::trashFile against trash-put
// (trash-cli) and gio trash (GLib), each on its own copy of the same tree in the
// same home trash, in one run. The tools get every file in one call, their
// fastest use; trashFile is called once per file, as the program calls it, and
// runs last.
//
//   trash_bench [FILES]      (default 10000)
//
// The home trash is the one HXLocalPaths names: run it as a user, or as root with
// SUDO_USER naming the user. As root each tool gets a fresh ext4 volume mounted
// over that home in a private mount namespace; otherwise the run works in the real
// home and removes from its trash whatever it put there. As root for a user whose
// home does not exist (the test account anna), the run first moves into a
// bubblewrap root of its own in which that home is an empty folder of the user's.

#include "fs/HXFileManager.h"
#include "platform/Accounts.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "tests/support/FreshRoot.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kFilesPerFolder = 100;

struct Tree {
    QString root;
    QStringList files;
};

// FILES small files in folders of a hundred, named so the run can find them in
// the trash afterwards.
Tree makeTree(const QString &parent, const QString &tag, int files)
{
    Tree tree{HXPath::appendingComponent(parent, tag), {}};
    const QByteArray contents(64, 'm');
    for (int i = 0; i < files; ++i) {
        const QString folder =
            tree.root + QStringLiteral("/d%1").arg(i / kFilesPerFolder, 3, 10, QLatin1Char('0'));
        if (i % kFilesPerFolder == 0)
            QDir().mkpath(folder);
        const QString path = folder + QStringLiteral("/%1-%2.txt").arg(tag).arg(i, 5, 10, QLatin1Char('0'));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size())
            return {};
        tree.files.append(path);
    }
    return tree;
}

// As root, everything below FOLDER made for the run becomes the user's, as her
// own files and Trash are: a root repair trashes her files with her rights.
void handToUser(const QString &folder, const std::optional<platform::Account> &user)
{
    if (!user || ::geteuid() != 0)
        return;
    ::lchown(QFile::encodeName(folder).constData(), user->uid, user->gid);
    QDirIterator it(folder, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        ::lchown(QFile::encodeName(it.next()).constData(), user->uid, user->gid);
}

int remaining(const Tree &tree)
{
    int count = 0;
    for (const QString &path : tree.files)
        count += QFile::exists(path) ? 1 : 0;
    return count;
}

std::optional<double> timed(const std::function<bool()> &work)
{
    const auto start = std::chrono::steady_clock::now();
    if (!work())
        return std::nullopt;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool runTool(const QStringList &command, const QStringList &files, const QString &dataHome)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_DATA_HOME"), dataHome);
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(command.first(), command.mid(1) + files);
    return process.waitForStarted() && process.waitForFinished(-1) && process.exitCode() == 0;
}

// Removes from the trash whatever carries TAG in its name.
void removeFromTrash(const QString &trashRoot, const QString &tag)
{
    for (const char *sub : {"files", "info"}) {
        const QString folder = HXPath::appendingComponent(trashRoot, QLatin1String(sub));
        for (const QString &name : QDir(folder).entryList(QDir::Files | QDir::NoDotAndDotDot | QDir::Hidden))
            if (name.contains(tag))
                QFile::remove(HXPath::appendingComponent(folder, name));
    }
}

}  // namespace

// Runs this program again with ARGUMENTS in a bubblewrap root holding every
// top-level folder of the machine but the one HOME lies in, which is an empty
// tmpfs holding HOME alone.
int runWithOwnHome(const QString &home, const QStringList &arguments)
{
    const QString top = home.section(QLatin1Char('/'), 1, 1);
    QStringList args = bubblewrapFreshRoot({top});
    args << QStringLiteral("--tmpfs") << QLatin1Char('/') + top << QStringLiteral("--dir") << home
         << QStringLiteral("--die-with-parent") << QStringLiteral("--setenv")
         << QStringLiteral("MENDWELL_TRASH_BENCH_HOME") << home << QCoreApplication::applicationFilePath()
         << arguments;
    QProcess inner;
    inner.setProcessChannelMode(QProcess::ForwardedChannels);
    inner.start(QStringLiteral("bwrap"), args);
    return inner.waitForStarted() && inner.waitForFinished(-1) ? inner.exitCode() : 1;
}

// A fresh ext4 volume mounted over the home for each tool, inside a private mount
// namespace: every tool starts from the same, unchurned file system, and nothing
// of the run reaches the real home.
class FreshVolume {
public:
    bool mount(const QString &home)
    {
        struct stat owner {};
        if (::stat(QFile::encodeName(home).constData(), &owner) != 0)
            return false;
        QFile image(m_image.filePath(QStringLiteral("volume.img")));
        if (!image.open(QIODevice::WriteOnly) || !image.resize(1024LL * 1024 * 1024))
            return false;
        image.close();
        if (QProcess::execute(QStringLiteral("mkfs.ext4"),
                              {QStringLiteral("-q"), QStringLiteral("-F"), QStringLiteral("-N"),
                               QStringLiteral("200000"), image.fileName()}) != 0 ||
            QProcess::execute(QStringLiteral("mount"),
                              {QStringLiteral("-o"), QStringLiteral("loop"), image.fileName(), home}) != 0)
            return false;
        m_home = home;
        return ::chown(QFile::encodeName(home).constData(), owner.st_uid, owner.st_gid) == 0;
    }
    ~FreshVolume()
    {
        if (!m_home.isEmpty())
            // Lazily: the program may still hold a folder of the volume open.
            QProcess::execute(QStringLiteral("umount"), {QStringLiteral("-l"), m_home});
    }

private:
    QTemporaryDir m_image;
    QString m_home;
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int files = argc > 1 ? QString::fromLocal8Bit(argv[1]).toInt() : 10000;
    const QString home = HXLocalPaths::userDirectory();
    const QString trashFiles = HXLocalPaths::trashDirectory();
    if (home.isEmpty() || trashFiles.isEmpty() || files <= 0) {
        std::fprintf(stderr, "No home trash: run as a user, or as root with SUDO_USER naming one.\n");
        return 1;
    }
    if (::geteuid() == 0 && !QFileInfo::exists(home)) {
        if (QStandardPaths::findExecutable(QStringLiteral("bwrap")).isEmpty()) {
            std::fprintf(stderr, "%s does not exist, and bubblewrap (bwrap) is not installed to make it.\n",
                         qPrintable(home));
            return 1;
        }
        return runWithOwnHome(home, app.arguments().mid(1));
    }
    if (qEnvironmentVariable("MENDWELL_TRASH_BENCH_HOME") == home) {
        // The home bubblewrap made is root's; the user's it must be.
        const std::optional<platform::Account> account = platform::accountNamed(HXLocalPaths::username());
        if (!account || ::chown(QFile::encodeName(home).constData(), account->uid, account->gid) != 0) {
            std::fprintf(stderr, "Cannot hand %s to its user.\n", qPrintable(home));
            return 1;
        }
    }
    // As root the run moves into a private mount namespace and uses fresh volumes.
    const bool fresh = ::geteuid() == 0 &&
                       !QStandardPaths::findExecutable(QStringLiteral("mkfs.ext4")).isEmpty() &&
                       !QStandardPaths::findExecutable(QStringLiteral("unshare")).isEmpty();
    if (fresh && !qEnvironmentVariableIsSet("MENDWELL_TRASH_BENCH_NAMESPACE")) {
        qputenv("MENDWELL_TRASH_BENCH_NAMESPACE", "1");
        QProcess inner;
        inner.setProcessChannelMode(QProcess::ForwardedChannels);
        inner.start(QStringLiteral("unshare"),
                    QStringList{QStringLiteral("--mount"), QStringLiteral("--propagation"),
                                QStringLiteral("private"), QStringLiteral("--"),
                                QCoreApplication::applicationFilePath()} +
                        app.arguments().mid(1));
        return inner.waitForStarted() && inner.waitForFinished(-1) ? inner.exitCode() : 1;
    }
    const QString trashRoot = HXPath::deletingLastComponent(trashFiles);
    const std::optional<platform::Account> user = platform::accountNamed(HXLocalPaths::username());
    const QString dataHome = HXPath::deletingLastComponent(trashRoot);
    const bool trashExisted = QFileInfo::exists(trashRoot);
    const QString run = HXLocalPaths::randomString(8);

    struct Contender {
        const char *label;
        QString tag;
        std::function<bool(const Tree &)> trash;
        std::optional<double> seconds;
    };
    QList<Contender> contenders{
        {"gio trash", QStringLiteral("gio") + run,
         [&](const Tree &tree) {
             return runTool({QStringLiteral("gio"), QStringLiteral("trash")}, tree.files, dataHome);
         },
         std::nullopt},
        {"trash-put", QStringLiteral("tp") + run,
         [&](const Tree &tree) { return runTool({QStringLiteral("trash-put")}, tree.files, dataHome); },
         std::nullopt},
        {"trashFile:", QStringLiteral("mw") + run,
         [](const Tree &tree) {
             bool all = true;
             for (const QString &path : tree.files)
                 all = HXFileManager::trashFile(path) && all;
             return all;
         },
         std::nullopt},
    };

    std::printf("Trashing %d files of 64 bytes (%d per folder) into %s%s\n", files, kFilesPerFolder,
                qPrintable(trashRoot), fresh ? " (a fresh ext4 volume for each tool)" : "");
    int status = 0;
    for (Contender &contender : contenders) {
        const QString program = contender.tag.startsWith(QLatin1String("gio"))  ? QStringLiteral("gio")
                                : contender.tag.startsWith(QLatin1String("tp")) ? QStringLiteral("trash-put")
                                                                                : QString();
        if (!program.isEmpty() && QStandardPaths::findExecutable(program).isEmpty()) {
            std::printf("%-11s not installed\n", contender.label);
            continue;
        }
        FreshVolume volume;
        if (fresh && !volume.mount(home)) {
            std::fprintf(stderr, "Cannot mount a fresh volume over %s.\n", qPrintable(home));
            return 1;
        }
        QDir().mkpath(trashFiles);
        QDir().mkpath(HXPath::appendingComponent(trashRoot, QStringLiteral("info")));
        handToUser(dataHome, user);
        // Inside the home, so every tool moves within one file system.
        QTemporaryDir work(HXPath::appendingComponent(home, QStringLiteral(".mendwell-trash-bench-XXXXXX")));
        const Tree tree = work.isValid() ? makeTree(work.path(), contender.tag, files) : Tree{};
        handToUser(work.path(), user);
        if (tree.files.size() != files) {
            std::fprintf(stderr, "Cannot write the tree for %s.\n", contender.label);
            return 1;
        }
        // Nothing is deleted until every tool has run: ext4 passes over recently freed
        // inodes when it allocates, which would slow whoever runs after a clean-up.
        ::sync();
        contender.seconds = timed([&] { return contender.trash(tree); });
        const int left = remaining(tree);
        if (!contender.seconds || left != 0) {
            std::printf("%-11s failed (%d files left)\n", contender.label, left);
            contender.seconds.reset();
            status = 1;
            continue;
        }
        std::printf("%-11s %6d files in %8.3f s = %9.0f files/s\n", contender.label, files,
                    *contender.seconds, files / *contender.seconds);
        if (fresh)
            work.setAutoRemove(false);
    }
    if (!fresh) {
        for (const Contender &contender : contenders)
            removeFromTrash(trashRoot, contender.tag);
        if (!trashExisted)
            QDir(trashRoot).removeRecursively();
    }

    const std::optional<double> ours = contenders.last().seconds;
    for (int i = 0; i + 1 < contenders.size() && ours; ++i)
        if (contenders.at(i).seconds)
            std::printf("trashFile: is %.2f times as fast as %s\n", *contenders.at(i).seconds / *ours,
                        contenders.at(i).label);
    return status;
}
