#include "treecopy.h"

#include "interrupt.h"
#include "output/console.h"
#include "output/problems.h"
#include "parallel.h"
#include "server/disk.h"

#include <kxcommon/pathguard.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>

#include <filesystem>
#include <set>

namespace publish {
namespace {

constexpr qsizetype manyFiles = 256;

QString WrittenText()
{
    return QStringLiteral("it was written to or replaced");
}

// Why a published file is not what it should be, or may not be touched.
QString DifferenceText(QFile& published, const QByteArray& digest, const QString& name)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (published.seek(0) && hash.addData(&published) && hash.result() == digest)
        return QStringLiteral("has other contents than %1, and the same MD5 digest: clients take "
                              "one for the other")
            .arg(Shown(name));
    return QStringLiteral("is not what its manifest says; a copy is published");
}

} // namespace

TreeCopy::TreeCopy(const QString& source, const QString& destination, const TreeContents& contents,
                   Digests digests, const PublishedFiles& published, ProgressMeter* progress)
    : source(source),
      destination(destination),
      contents(contents),
      digests(digests),
      published(published),
      progress(progress)
{
}

TreeCopy::Result TreeCopy::Run(Problems* problems, QString& error)
{
    items.reserve(size_t(contents.files.size()));
    for (auto file = contents.files.begin(); file != contents.files.end(); ++file) {
        Item item;
        item.name = file.key();
        item.file = file.value();
        items.push_back(item);
    }
    if (!IsDry() && !Prepare(error))
        return Failed;

    std::vector<Item*> work;
    bool copies = false;
    for (Item& item : items) {
        work.push_back(&item);
        copies = copies || !published.HasSize(item.file.status.size);
    }
    Result result = RunPass(copies && !IsDry() ? Progress::Copying : Progress::Hashing, work,
                            &TreeCopy::HashOrCopy, problems, error);
    if (result != Complete)
        return result;

    work.clear();
    for (Item& item : items) {
        const bool waits = IsDry() ? !published.Find(item.digest, item.file.status.size).isEmpty()
                                   : !item.copied || item.file.young;
        if (waits)
            work.push_back(&item);
    }
    result = RunPass(Progress::Comparing, work, &TreeCopy::LinkOrCompare, problems, error);
    WarnOfPlaces(problems);
    if (result != Complete || IsDry())
        return result;
    return SyncAll(error) ? Complete : Failed;
}

TreeCopy::Result TreeCopy::RunPass(Progress::Step step, const std::vector<Item*>& work,
                                   Work function, Problems* problems, QString& error)
{
    quint64 bytes = 0;
    for (const Item* item : work)
        bytes += item->file.status.size;
    progress->Begin(step, work.size(), bytes);
    std::vector<ReadBuffers> buffers(size_t(WorkerCount(qsizetype(work.size()))));
    const auto job = [&](int worker, qsizetype index) {
        Item& item = *work[size_t(index)];
        (this->*function)(item, buffers[size_t(worker)]);
        progress->Add(1, 0);
        return item.result.kind != ReadResult::Failed &&
               item.result.kind != ReadResult::Interrupted && !IsInterrupted();
    };
    ForEach(qsizetype(work.size()), job, [this] { progress->Tick(); });
    progress->End();
    return Outcome(problems, error);
}

TreeCopy::Result TreeCopy::Outcome(Problems* problems, QString& error)
{
    if (IsInterrupted())
        return Interrupted;
    for (const Item& item : items) {
        if (item.result.kind == ReadResult::Failed) {
            error = item.result.text;
            return Failed;
        }
    }
    bool changed = false;
    for (const Item& item : items) {
        if (item.result.kind != ReadResult::Changed)
            continue;
        problems->Refuse(Shown(item.name),
                         QStringLiteral("changed while it was published: ") + item.result.text);
        changed = true;
    }
    return changed ? Changed : Complete;
}

void TreeCopy::HashOrCopy(Item& item, ReadBuffers& buffers)
{
    // What may have an equal is compared before it is copied.
    item.copied = !IsDry() && !published.HasSize(item.file.status.size);
    FileReader reader = Reader(item, buffers);
    item.result = item.copied ? reader.CopyTo(CopyPath(item)) : reader.Hash();
    item.digest = item.result.digest;
    item.sha256 = item.result.sha256;
}

void TreeCopy::LinkOrCompare(Item& item, ReadBuffers& buffers)
{
    if (item.copied)
        CompareWithCopy(item, buffers);
    else if (!Link(item, buffers) && !IsDry())
        CopyHashed(item, buffers);
}

void TreeCopy::CompareWithCopy(Item& item, ReadBuffers& buffers)
{
    QFile copy;
    int mode = 0;
    QString reason;
    if (OpenRegularFile(copy, CopyPath(item), mode, reason)) {
        item.result = Reader(item, buffers).CompareWith(copy);
        if (item.result.kind == ReadResult::Different)
            item.result = ReadResult::Of(ReadResult::Changed, WrittenText());
        return;
    }
    item.result =
        ReadResult::Of(ReadResult::Failed,
                       QStringLiteral("cannot read %1: %2").arg(Shown(CopyPath(item)), reason));
}

// True when nothing is left to do, well or badly.
bool TreeCopy::Link(Item& item, ReadBuffers& buffers)
{
    for (const PublishedFiles::Place& place : published.Find(item.digest, item.file.status.size)) {
        switch (TryPlace(item, place, buffers)) {
        case Try::Linked:
            item.linked = true;
            return true;
        case Try::Ended:
            return true;
        case Try::NoLinks:
            return false;
        case Try::Next:
            break;
        }
    }
    return false;
}

TreeCopy::Try TreeCopy::TryPlace(Item& item, const PublishedFiles::Place& place,
                                 ReadBuffers& buffers)
{
    const auto passOver = [&](const QString& reason) {
        item.warnings.append(Shown(place.Path()) + QStringLiteral(": ") + reason);
        return Try::Next;
    };
    const QString problem = PlaceProblem(item, place);
    if (!problem.isEmpty())
        return passOver(QStringLiteral("is not linked to: ") + problem);
    const QString copy = IsDry() ? place.Path() : CopyPath(item);
    std::error_code code;
    if (!IsDry())
        std::filesystem::create_hard_link(QFileInfo(place.Path()).filesystemFilePath(),
                                          QFileInfo(copy).filesystemFilePath(), code);
    if (code == std::errc::too_many_links)
        return Try::Next;
    if (code) {
        item.linkError = Shown(place.Path()) +
                         QStringLiteral(": cannot be linked to, so equal files are copied: ") +
                         QString::fromLocal8Bit(code.message().c_str());
        return Try::NoLinks;
    }
    // Looked at by its new name: whatever becomes of the old one, this is what is published.
    QFile linked;
    int mode = 0;
    QString reason;
    if (OpenRegularFile(linked, copy, mode, reason)) {
        item.result = Reader(item, buffers).CompareWith(linked);
        if (item.result.kind == ReadResult::Good)
            return Try::Linked;
        if (item.result.kind != ReadResult::Different)
            return Try::Ended;
        item.result = {};
        reason = DifferenceText(linked, item.digest, item.name);
        linked.close();
    }
    if (!IsDry() && !QFile::remove(copy)) {
        item.result =
            ReadResult::Of(ReadResult::Failed, QStringLiteral("cannot remove ") + Shown(copy));
        return Try::Ended;
    }
    return passOver(reason);
}

// Why a published file may not be linked to, whatever it holds.
QString TreeCopy::PlaceProblem(const Item& item, const PublishedFiles::Place& place) const
{
    const QString violation = common::PathGuard::Violation(place.root, place.name);
    if (!violation.isEmpty())
        return violation;
    FileStatus status;
    if (!ReadStatus(place.Path(), status))
        return QStringLiteral("there is no regular file");
    const FileStatus& own = item.file.status;
    if (own.inode != 0 && own.inode == status.inode && own.device == status.device)
        return QStringLiteral("it is one file with %1 of the tree, where it may be written to")
            .arg(Shown(item.name));
    if (!IsDry() && (freshMode & 0444 & ~status.mode) != 0)
        return QStringLiteral("a web server may not read it");
    if (!IsDry() && (status.mode & 0222 & ~freshMode) != 0)
        return QStringLiteral("others may write to it");
    return {};
}

void TreeCopy::CopyHashed(Item& item, ReadBuffers& buffers)
{
    item.copied = true;
    item.result = Reader(item, buffers).CopyTo(CopyPath(item));
    if (item.result.kind == ReadResult::Good &&
        (item.result.digest != item.digest || item.result.sha256 != item.sha256))
        item.result = ReadResult::Of(ReadResult::Changed, WrittenText());
}

FileReader TreeCopy::Reader(const Item& item, ReadBuffers& buffers) const
{
    return FileReader(source + QLatin1Char('/') + item.name, item.name, item.file.status, digests,
                      buffers, progress);
}

QString TreeCopy::CopyPath(const Item& item) const
{
    return destination + QLatin1Char('/') + item.name;
}

bool TreeCopy::IsDry() const
{
    return destination.isEmpty();
}

// The same file may have been passed over for several: it is named once.
void TreeCopy::WarnOfPlaces(Problems* problems) const
{
    QSet<QString> said;
    const auto warn = [&](const QString& text) {
        if (!text.isEmpty() && !said.contains(text)) {
            said.insert(text);
            problems->Warn(text);
        }
    };
    QString linkError;
    for (const Item& item : items) {
        for (const QString& text : item.warnings)
            warn(text);
        if (linkError.isEmpty())
            linkError = item.linkError;
    }
    warn(linkError);
}

bool TreeCopy::Prepare(QString& error)
{
    // Sorted, so that a directory comes before what is in it.
    std::set<QString> paths;
    for (const Item& item : items) {
        qsizetype end = item.name.lastIndexOf(QLatin1Char('/'));
        for (; end > 0; end = item.name.lastIndexOf(QLatin1Char('/'), end - 1)) {
            if (!paths.insert(destination + QLatin1Char('/') + item.name.left(end)).second)
                break;
        }
    }
    for (const QString& path : paths) {
        if (!QDir().mkdir(path)) {
            error = QStringLiteral("cannot make the directory %1").arg(Shown(path));
            return false;
        }
        directories.append(path);
    }
    // Who may write to a new file, with the publisher's umask; a web server may read it.
    QFile probe(destination + QStringLiteral("/.probe"));
    FileStatus status;
    if (!probe.open(QIODevice::WriteOnly | QIODevice::NewOnly) || !ReadStatus(probe, status) ||
        !probe.remove()) {
        error =
            QStringLiteral("cannot write %1: %2").arg(Shown(probe.fileName()), probe.errorString());
        return false;
    }
    freshMode = status.mode;
    return true;
}

// In a pass of its own: the system has begun to write by then, and waits far less per file.
bool TreeCopy::SyncAll(QString& error)
{
    progress->Begin(Progress::Syncing, 0, 0);
    bool synced = false;
    QString reason;
    // One call for the volume is far quicker than one for each of many files. For a few it is not:
    // the call waits for what other programs have written, too.
    if (qsizetype(items.size()) >= manyFiles)
        ForEach(
            1, [&](int, qsizetype) { return synced = SyncVolume(destination, reason); },
            [this] { progress->Tick(); });
    if (!reason.isEmpty())
        error = QStringLiteral("cannot bring %1 to the disk: %2").arg(Shown(destination), reason);
    else if (!synced)
        synced = SyncEach(error);
    progress->End();
    return synced;
}

bool TreeCopy::SyncEach(QString& error)
{
    // What is linked is on the disk already.
    QStringList paths;
    for (const Item& item : items) {
        if (item.copied)
            paths.append(CopyPath(item));
    }
    paths += directories;
    paths.append(destination);
    std::vector<QString> errors(size_t(paths.size()));
    const auto sync = [&](int, qsizetype index) {
        return Sync(paths.at(index), errors[size_t(index)]);
    };
    ForEach(paths.size(), sync, [this] { progress->Tick(); });
    for (const QString& text : errors) {
        if (text.isEmpty())
            continue;
        error = text;
        return false;
    }
    return true;
}

QMap<QString, QByteArray> TreeCopy::Md5Digests() const
{
    QMap<QString, QByteArray> found;
    for (const Item& item : items)
        found.insert(item.name, item.digest.toHex());
    return found;
}

QMap<QString, QByteArray> TreeCopy::Sha256Digests() const
{
    QMap<QString, QByteArray> found;
    for (const Item& item : items) {
        if (digests == Digests::Md5AndSha256)
            found.insert(item.name, item.sha256);
    }
    return found;
}

CopyTotals TreeCopy::Totals() const
{
    CopyTotals totals;
    for (const Item& item : items) {
        totals.bytes += item.file.status.size;
        totals.linked += item.linked;
        totals.linkedBytes += item.linked ? item.file.status.size : 0;
    }
    return totals;
}

} // namespace publish
