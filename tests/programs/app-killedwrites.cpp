// Writes one kind of file again and again in a child process while this one
// kills the child at a random moment, KILLS times; after each kill the file is
// read back with the program's own reader and must hold one whole version, never
// an older one than the last read. Prints
//   "KIND kills=N damaged=N older=N leftovers=N orphans=N next=ok|failed"
// (leftovers: temporary files a killed writer left; orphans: Trash records whose
// item never arrived). "next" is an unkilled write and read after the last kill.
// usage: app-killedwrites settings|stamps|records|trash|machine KILLS
//   settings, stamps: as the user who runs the window; records, trash, machine:
//   as root, for the console user, as the command line works.

#include "app/HXRunRecord.h"
#include "diagnostics/HXBugReporter.h"
#include "platform/Trash.h"
#include "system/HXLocalPaths.h"
#include "system/HXUserDefaults.h"
#include "system/PropertyList.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

// Bigger than a real settings file, so that a kill lands inside a write often.
const QString kPayload = QString(32 * 1024, u'x');
const QString kVersion = u"killedWritesVersion"_s;
const QString kPayloadKey = u"killedWritesPayload"_s;
const QString kRecord = u"2026-01-01-000000-killed"_s;

struct Kind {
    // Writes version V whole; runs in the child.
    std::function<void(qint64 version)> write;
    // The version the file holds now, -1 when it is damaged or missing.
    std::function<qint64()> read;
    // The folder where a killed writer's temporary files would be left.
    QString folder;
};

qint64 versionIn(const QVariantMap &values)
{
    if (values.value(kPayloadKey).toString() != kPayload ||
        values.value(kVersion).typeId() != QMetaType::LongLong)
        return -1;
    return values.value(kVersion).toLongLong();
}

QString folderOf(const QString &path)
{
    return path.left(path.lastIndexOf(u'/'));
}

Kind settingsKind()
{
    const QString path = HXUserDefaults::standardUserDefaults().path();
    return {[](qint64 version) {
                HXUserDefaults &defaults = HXUserDefaults::standardUserDefaults();
                defaults.setObject(kPayload, kPayloadKey);
                defaults.setInteger(version, kVersion);
            },
            [path] { return versionIn(PropertyList::readDictionary(path)); }, folderOf(path)};
}

// The launch and exit stamps live in the settings; the exit stamp's milliseconds
// are the version.
Kind stampsKind()
{
    const QString path = HXUserDefaults::standardUserDefaults().path();
    HXUserDefaults::standardUserDefaults().setObject(kPayload, kPayloadKey);
    HXUserDefaults::standardUserDefaults().setInteger(0, kVersion);
    return {[](qint64) { HXBugReporter::stopBugReporter(); },
            [path] {
                const QVariantMap values = PropertyList::readDictionary(path);
                if (versionIn(values) < 0)
                    return qint64{-1};
                const QVariant exit = values.value(u"exit"_s);
                if (!exit.isValid())
                    return qint64{0};
                return exit.typeId() == QMetaType::QDateTime ? exit.toDateTime().toMSecsSinceEpoch()
                                                             : qint64{-1};
            },
            folderOf(path)};
}

Kind recordsKind()
{
    return {
        [](qint64 version) {
            HXRunRecord::store({{u"identifier"_s, kRecord}, {kVersion, version}, {kPayloadKey, kPayload}});
        },
        [] {
            const std::optional<QVariantMap> record = HXRunRecord::load();
            return record && record->value(u"identifier"_s) == kRecord ? versionIn(*record) : qint64{-1};
        },
        HXRunRecord::repairsFolder()};
}

Kind machineKind()
{
    const QString path = HXUserDefaults::anyUserPath();
    return {[](qint64 version) {
                HXUserDefaults::setValueForAnyUser(kPayload, kPayloadKey);
                HXUserDefaults::setValueForAnyUser(version, kVersion);
            },
            [path] { return versionIn(PropertyList::readDictionary(path)); }, folderOf(path)};
}

// Items numbered from VERSION go to the Trash one after another. After a kill,
// every record must be whole and name an item of ours, and every item in the
// Trash must have its record; what was checked is then emptied, so that each
// check sees only what the last child did.
struct TrashCheck {
    QString items;
    QString files;
    QString info;
    int damaged = 0;
    int orphans = 0;
    int unrecorded = 0;

    void write(qint64 version) const
    {
        for (qint64 number = version;; ++number) {
            const QString item = items + u"/item-"_s + QString::number(number);
            QFile file(item);
            if (!file.open(QIODevice::WriteOnly))
                return;
            file.close();
            platform::trash::moveToTrash(item, files);
        }
    }

    bool recordIsWhole(const QString &name) const
    {
        QFile file(info + u'/' + name);
        if (!file.open(QIODevice::ReadOnly))
            return false;
        const QList<QByteArray> lines = file.readAll().split('\n');
        return lines.size() == 4 && lines[0] == "[Trash Info]" && lines[1].startsWith("Path=") &&
               QString::fromUtf8(QByteArray::fromPercentEncoding(lines[1].sliced(5)))
                   .startsWith(items + u"/item-"_s) &&
               lines[2].startsWith("DeletionDate=") &&
               QDateTime::fromString(QString::fromLatin1(lines[2].sliced(13)), Qt::ISODate).isValid() &&
               lines[3].isEmpty();
    }

    // True when everything in the Trash was whole.
    bool checkAndEmpty()
    {
        bool whole = true;
        const QStringList records = QDir(info).entryList(QDir::Files | QDir::Hidden);
        for (const QString &record : records) {
            if (!record.endsWith(u".trashinfo"_s))
                continue;
            if (!recordIsWhole(record)) {
                ++damaged;
                whole = false;
                std::printf("damaged record %s\n", qPrintable(record));
            }
            const QString item = files + u'/' + record.chopped(10);
            if (!QFileInfo::exists(item))
                ++orphans;
            QFile::remove(item);
            QFile::remove(info + u'/' + record);
        }
        for (const QString &item : QDir(files).entryList(QDir::Files | QDir::Hidden)) {
            ++unrecorded;
            whole = false;
            std::printf("item without a record %s\n", qPrintable(item));
            QFile::remove(files + u'/' + item);
        }
        return whole;
    }
};

// Files in FOLDER whose names do not end in SUFFIX: temporary files a killed
// writer left.
int countLeftovers(const QString &folder, const QString &suffix)
{
    int count = 0;
    for (const QString &name : QDir(folder).entryList(QDir::Files | QDir::Hidden)) {
        if (!name.endsWith(suffix)) {
            std::printf("left over: %s\n", qPrintable(name));
            ++count;
        }
    }
    return count;
}

// Starts a child that runs WRITE from VERSION on and kills it after a random
// moment of up to three milliseconds.
void killWriterAfterAWhile(const std::function<void()> &write, std::mt19937 &random)
{
    const pid_t child = ::fork();
    if (child == 0) {
        write();
        ::_exit(0);
    }
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString kind = args.value(1);
    const int kills = args.value(2).toInt();
    if (kills <= 0)
        return 2;
    std::mt19937 random(static_cast<unsigned>(::getpid()));
    int damaged = 0;
    int older = 0;
    bool next = false;

    if (kind == u"trash"_s) {
        TrashCheck trash;
        trash.files = HXLocalPaths::trashDirectory();
        trash.info = folderOf(trash.files) + u"/info"_s;
        trash.items = HXLocalPaths::userDirectory() + u"/KilledWrites"_s;
        if (!QDir().mkpath(trash.items))
            return 2;
        qint64 version = 0;
        for (int kill = 0; kill < kills; ++kill, version += 1000000)
            killWriterAfterAWhile([&] { trash.write(version); }, random);
        trash.checkAndEmpty();
        damaged = trash.damaged + trash.unrecorded;
        const int leftovers = countLeftovers(trash.info, u".trashinfo"_s);
        const QString item = trash.items + u"/item-next"_s;
        QFile(item).open(QIODevice::WriteOnly);
        const platform::trash::Outcome outcome = platform::trash::moveToTrash(item, trash.files);
        next = outcome.trashed && QFileInfo::exists(outcome.trashedPath) &&
               trash.recordIsWhole(QFileInfo(outcome.infoPath).fileName());
        std::printf("%s kills=%d damaged=%d older=0 leftovers=%d orphans=%d next=%s\n", qPrintable(kind),
                    kills, damaged, leftovers, trash.orphans, next ? "ok" : "failed");
        return 0;
    }

    Kind chosen;
    if (kind == u"settings"_s)
        chosen = settingsKind();
    else if (kind == u"stamps"_s)
        chosen = stampsKind();
    else if (kind == u"records"_s)
        chosen = recordsKind();
    else if (kind == u"machine"_s)
        chosen = machineKind();
    else
        return 2;
    chosen.write(1);
    qint64 last = chosen.read();
    if (last < 0)
        return 2;
    qint64 version = 2;
    for (int kill = 0; kill < kills; ++kill, version += 1000000) {
        killWriterAfterAWhile(
            [&] {
                for (qint64 v = version;; ++v)
                    chosen.write(v);
            },
            random);
        const qint64 now = chosen.read();
        if (now < 0) {
            ++damaged;
            std::printf("damaged after kill %d\n", kill);
        } else if (now < last) {
            ++older;
            std::printf("older after kill %d: %lld after %lld\n", kill, now, last);
        }
        last = std::max(last, now);
    }
    const qint64 final = kind == u"stamps"_s ? 0 : version;
    chosen.write(final);
    next = kind == u"stamps"_s ? chosen.read() >= last : chosen.read() == final;
    std::printf("%s kills=%d damaged=%d older=%d leftovers=%d orphans=0 next=%s\n", qPrintable(kind), kills,
                damaged, older, countLeftovers(chosen.folder, u".plist"_s), next ? "ok" : "failed");
    return 0;
}
