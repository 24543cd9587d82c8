#include "copyentry.h"

#include "filepath.h"

#include <kxcommon/errors.h>

#include <QStorageInfo>

#include <cerrno>

namespace common {
namespace {

constexpr char partSuffix[] = ".kx.part";

bool IsMissing(const fileops::Error& error)
{
    return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

bool IsFull(const fileops::Error& error)
{
#ifdef EDQUOT
    if (error.value() == EDQUOT && error.category() == std::system_category())
        return true;
#endif
    return error == std::errc::no_space_on_device;
}

// How much room is left, as far as it can be told.
QString FreeBytes(fileops::Path path)
{
    std::error_code ignored;
    while (path.has_relative_path() && !std::filesystem::exists(path, ignored))
        path = path.parent_path();
    const QStorageInfo volume(FromNative(path));
    if (!volume.isValid())
        return {};
    return QStringLiteral(" (%1 bytes free)").arg(volume.bytesAvailable());
}

// The hidden name under which a replacement is made. What the source's directory has under that
// name goes to the same place, and must not be taken for a leftover.
fileops::Name PartName(const CopyEnd& source, const CopyEnd& destination, Placing placing)
{
    fileops::Name part = HiddenName(destination.name, partSuffix);
    fileops::Attributes other;
    while (placing == Placing::Merging && !source.directory.Read(part, &other) &&
           other.kind != fileops::Kind::Missing)
        part = HiddenName(part, partSuffix);
    return part;
}

// Nothing but a file or a link may be replaced, and what an earlier run left is cleared away.
Failure Prepare(const CopyEnd& source, const CopyEnd& destination, const fileops::Name& part)
{
    const fileops::Directory& directory = destination.directory;
    fileops::Attributes attributes;
    if (const fileops::Error error = directory.Read(destination.name, &attributes))
        return CopyFailed(CopyWrite, source.path, destination.path,
                          QStringLiteral("looking at the destination"), error);
    if (attributes.kind == fileops::Kind::Directory)
        return CopyFailed(CopyReplace, source.path, destination.path,
                          QStringLiteral("a directory stands at the destination"));
    if (attributes.kind == fileops::Kind::Special)
        return CopyFailed(CopyReplace, source.path, destination.path,
                          QStringLiteral("a special file stands at the destination"));
    fileops::Error error = directory.Read(part, &attributes);
    if (!error && attributes.kind != fileops::Kind::Missing)
        error = directory.RemoveEntry(part);
    if (error)
        return CopyFailed(CopyReplace, source.path, destination.path,
                          QStringLiteral("removing the leftover '%1'")
                              .arg(FromNative(destination.path.parent_path() / part)),
                          error);
    return {};
}

Failure Replace(const CopyEnd& source, const CopyEnd& destination, const fileops::Name& part)
{
    if (const fileops::Error error = destination.directory.Replace(part, destination.name))
        return CopyFailed(CopyReplace, source.path, destination.path,
                          QStringLiteral("putting the copy into place"), error);
    return {};
}

Failure OpenSource(const CopyEnd& source, bool follow, const CopyEnd& destination,
                   fileops::File* file)
{
    const fileops::Error error = file->OpenToRead(source.directory, source.name, follow);
    if (!error)
        return {};
    if (IsMissing(error))
        return CopyFailed(CopySourceMissing, source.path, destination.path,
                          QStringLiteral("the source does not exist"));
    if (error != std::make_error_code(std::errc::operation_not_supported))
        return CopyFailed(CopyRead, source.path, destination.path,
                          QStringLiteral("opening the source"), error);
    std::error_code ignored;
    if (std::filesystem::is_directory(source.path, ignored))
        return CopyFailed(CopyRead, source.path, destination.path,
                          QStringLiteral("the source is a directory"));
    return CopyFailed(CopySpecialFile, source.path, destination.path,
                      QStringLiteral("the source is a special file"));
}

Failure Fill(const CopyEnd& source, const CopyEnd& destination, const fileops::File& from,
             fileops::File* to, const fileops::File::Advance& advance)
{
    fileops::Attributes attributes;
    if (const fileops::Error error = from.Read(&attributes))
        return CopyFailed(CopyRead, source.path, destination.path,
                          QStringLiteral("looking at the source"), error);
    bool isReading = false;
    if (const fileops::Error error =
            fileops::File::CopyContent(from, attributes, *to, advance, &isReading)) {
        const QString step = isReading ? QStringLiteral("reading") : QStringLiteral("writing");
        return CopyFailed(isReading ? CopyRead : CopyWrite, source.path, destination.path, step,
                          error);
    }
    if (const fileops::Error error = to->Apply(attributes))
        return CopyFailed(CopyAttributes, source.path, destination.path,
                          QStringLiteral("keeping permissions and modification time"), error);
    if (const fileops::Error error = to->Close())
        return CopyFailed(CopyWrite, source.path, destination.path, QStringLiteral("closing"),
                          error);
    return {};
}

} // namespace

Failure CopyFailed(int code, const fileops::Path& source, const fileops::Path& destination,
                   const QString& step, const fileops::Error& error)
{
    if (error == std::make_error_code(std::errc::operation_canceled))
        return {abandoned, {}};
    QString reason = QStringLiteral("%1: %2").arg(step, Reason(error));
    if (IsFull(error)) {
        code = CopyNoSpace;
        reason += FreeBytes(destination);
    }
    return CopyFailed(code, source, destination, reason);
}

Failure CopyFailed(int code, const fileops::Path& source, const fileops::Path& destination,
                   const QString& reason)
{
    return {code, QStringLiteral("Cannot copy '%1' to '%2': %3")
                      .arg(FromNative(source), FromNative(destination), reason)};
}

Failure CopyFileEntry(const CopyEnd& source, bool follow, const CopyEnd& destination,
                      Placing placing, const fileops::File::Advance& advance)
{
    fileops::File from;
    if (Failure failure = OpenSource(source, follow, destination, &from))
        return failure;
    const bool isFresh = placing == Placing::Fresh;
    const fileops::Name name = isFresh ? destination.name : PartName(source, destination, placing);
    if (!isFresh) {
        if (Failure failure = Prepare(source, destination, name))
            return failure;
    }
    fileops::File to;
    if (const fileops::Error error = to.Create(destination.directory, name))
        return CopyFailed(CopyWrite, source.path, destination.path,
                          QStringLiteral("making the file"), error);
    Failure failure = Fill(source, destination, from, &to, advance);
    if (!failure && !isFresh)
        failure = Replace(source, destination, name);
    if (failure)
        destination.directory.RemoveEntry(name);
    return failure;
}

Failure CopyLinkEntry(const CopyEnd& source, const CopyEnd& destination, Placing placing)
{
    fileops::Attributes attributes;
    if (const fileops::Error error = source.directory.Read(source.name, &attributes))
        return CopyFailed(CopyLink, source.path, destination.path,
                          QStringLiteral("looking at the link"), error);
    if (attributes.kind == fileops::Kind::Missing)
        return CopyFailed(CopySourceMissing, source.path, destination.path,
                          QStringLiteral("the source does not exist"));
    if (attributes.kind != fileops::Kind::Link)
        return CopyFailed(CopyLink, source.path, destination.path,
                          QStringLiteral("the source is not a symbolic link"));
    fileops::Name target;
    if (const fileops::Error error = source.directory.ReadLink(source.name, &target))
        return CopyFailed(CopyLink, source.path, destination.path,
                          QStringLiteral("reading the link"), error);
    const bool isFresh = placing == Placing::Fresh;
    const fileops::Name name = isFresh ? destination.name : PartName(source, destination, placing);
    if (!isFresh) {
        if (Failure failure = Prepare(source, destination, name))
            return failure;
    }
    if (const fileops::Error error = destination.directory.MakeLink(name, target))
        return CopyFailed(CopyLink, source.path, destination.path,
                          QStringLiteral("making the link"), error);
    destination.directory.SetLinkTimes(name, attributes);
    if (isFresh)
        return {};
    Failure failure = Replace(source, destination, name);
    if (failure)
        destination.directory.RemoveEntry(name);
    return failure;
}

fileops::Error OpenMade(const fileops::Path& path, fileops::Directory* directory, int* made)
{
    fileops::Error error = directory->OpenAnchor(path);
    if (error != std::errc::no_such_file_or_directory)
        return error;
    // Down from the lowest directory that exists.
    std::vector<fileops::Name> missing;
    fileops::Path existing = path;
    while (error == std::errc::no_such_file_or_directory && existing.has_relative_path()) {
        if (existing.has_filename())
            missing.push_back(existing.filename().native());
        existing = existing.parent_path();
        error = directory->OpenAnchor(existing.empty() ? fileops::Path(".") : existing);
    }
    while (!error && !missing.empty()) {
        const fileops::Name name = missing.back();
        missing.pop_back();
        error = directory->MakeDirectory(name);
        if (!error)
            ++*made;
        else if (error == std::errc::file_exists)
            error = {};
        fileops::Directory child;
        if (!error)
            error = child.OpenChild(*directory, name);
        if (!error)
            *directory = std::move(child);
    }
    return error;
}

} // namespace common
