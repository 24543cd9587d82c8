#include "copyworker.h"

#include "copyentry.h"
#include "copytree.h"
#include "filepath.h"

#include <kxcommon/errors.h>
#include <kxcommon/pathguard.h>

#include <QDir>

namespace common {
namespace {

Failure Failed(int code, const QString& source, const QString& destination, const QString& reason)
{
    return {code, QStringLiteral("Cannot copy '%1' to '%2': %3").arg(source, destination, reason)};
}

} // namespace

CopyWorker::CopyWorker(QObject* parent)
    : FileWorker(parent, CopyStart, QStringLiteral("Cannot start copying"))
{
}

CopyWorker::~CopyWorker()
{
    Stop();
}

void CopyWorker::Add(Kind kind, const QString& source, const QString& destination)
{
    if (!IsStarted())
        jobs.push_back({kind, source, destination});
}

void CopyWorker::SetDestinationRoot(const QString& root)
{
    if (!IsStarted())
        destinationRoot = root;
}

Failure CopyWorker::Work()
{
    std::uint64_t total = 0;
    for (const Job& job : jobs) {
        if (IsAborted())
            return {abandoned, {}};
        total = AddSaturated(total, Count(job));
    }
    SetTotal(total);
    for (const Job& job : jobs) {
        if (IsAborted())
            return {abandoned, {}};
        if (Failure failure = Carry(job))
            return failure;
        Advance(entryAmount);
    }
    return {};
}

// A source that cannot be read is found out when its turn comes.
std::uint64_t CopyWorker::Count(const Job& job) const
{
    if (job.kind == Kind::Directory)
        return AddSaturated(entryAmount,
                            CountTree(job.source, job.destination, [this] { return IsAborted(); }));
    if (job.kind == Kind::Symlink)
        return entryAmount;
    std::error_code error;
    const fileops::Path source = ToNative(job.source);
    // Asked first: the size of anything else means nothing.
    const bool isFile = std::filesystem::is_regular_file(source, error);
    const std::uint64_t size = isFile ? std::filesystem::file_size(source, error) : 0;
    return error ? entryAmount : AddSaturated(entryAmount, size);
}

Failure CopyWorker::Carry(const Job& job)
{
    if (HasNull(job.source) || HasNull(job.destination))
        return Failed(HasNull(job.source) ? CopySourceMissing : CopyWrite, job.source,
                      job.destination, QStringLiteral("the path has a null character"));
    if (job.kind == Kind::Directory)
        return CopyTree(job.source, job.destination,
                        [this](std::uint64_t amount) { return Advance(amount); });
    if (!destinationRoot.isEmpty()) {
        const QString violation = Violation(job.destination);
        if (!violation.isEmpty())
            return Failed(CopyConfinement, job.source, job.destination, violation);
    }
    return CopySingle(job);
}

Failure CopyWorker::CopySingle(const Job& job)
{
    const SplitPath source = Split(job.source);
    const SplitPath destination = Split(job.destination);
    fileops::Directory sourceParent;
    fileops::Directory parent;
    const fileops::Error opening = source.name.empty()
                                       ? std::make_error_code(std::errc::no_such_file_or_directory)
                                       : sourceParent.OpenAnchor(source.parent);
    if (opening == std::errc::no_such_file_or_directory || opening == std::errc::not_a_directory)
        return Failed(CopySourceMissing, job.source, job.destination,
                      QStringLiteral("the source does not exist"));
    if (opening)
        return CopyFailed(CopyRead, source.Path(), destination.Path(),
                          QStringLiteral("opening the source"), opening);
    if (destination.name.empty())
        return Failed(CopyWrite, job.source, job.destination,
                      QStringLiteral("the destination names no entry"));
    if (const fileops::Error error = fileops::At(fileops::Step::Entry))
        return CopyFailed(CopyWrite, source.Path(), destination.Path(), QStringLiteral("writing"),
                          error);
    int made = 0;
    if (const fileops::Error error = OpenMade(destination.parent, &parent, &made))
        return CopyFailed(
            CopyCreateDirectory, source.Path(), destination.Path(),
            QStringLiteral("making the directory '%1'").arg(FromNative(destination.parent)), error);
    const CopyEnd from{sourceParent, source.name, source.Path()};
    const CopyEnd to{parent, destination.name, destination.Path()};
    if (job.kind == Kind::Symlink)
        return CopyLinkEntry(from, to, Placing::Replacing);
    return CopyFileEntry(from, true, to, Placing::Replacing,
                         [this](std::uint64_t amount) { return Advance(amount); });
}

QString CopyWorker::Violation(const QString& destination) const
{
    QString stripped = destinationRoot;
    while (stripped.endsWith(QLatin1Char('/')))
        stripped.chop(1);
    // The root in the caller's own letters first: behind it, a second separator belongs to the name
    // and makes it an absolute one.
    for (const QString& root : {destinationRoot, stripped, QDir::cleanPath(destinationRoot)}) {
        const QString prefix = root + QLatin1Char('/');
        if (destination.startsWith(prefix))
            return PathGuard::Violation(stripped, destination.mid(prefix.size()));
    }
    return QStringLiteral("the destination is not below '%1'").arg(destinationRoot);
}

} // namespace common
