#include "diskmodel.h"

#include "treebuilder.h"

#include <QFile>

#include <algorithm>
#include <array>
#include <cstdlib>

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace campaign {
namespace {

using Kind = DiskStep::Kind;
using Type = DiskModel::Type;

QByteArray ParentOf(const QByteArray& path)
{
    return path.left(std::max<qsizetype>(0, path.lastIndexOf('/')));
}

QByteArray NameOf(const QByteArray& path)
{
    return path.mid(path.lastIndexOf('/') + 1);
}

QByteArray LinkTarget(const QByteArray& path)
{
    std::array<char, 4096> text;
    const ssize_t size = ::readlink(path.constData(), text.data(), text.size());
    return size < 0 ? QByteArray() : QByteArray(text.data(), size);
}

int ModeOf(const QByteArray& path)
{
    struct stat status = {};
    return ::lstat(path.constData(), &status) == 0 ? int(status.st_mode & 07777) : -1;
}

[[noreturn]] void Die(const char* what, const QByteArray& path)
{
    qFatal("disk model: cannot %s '%s'", what, path.constData());
    std::abort();
}

} // namespace

DiskModel DiskModel::Read(const QByteArray& root)
{
    DiskModel model;
    model.ReadEntry(root);
    return model;
}

int DiskModel::ReadEntry(const QByteArray& path)
{
    struct stat status = {};
    if (::lstat(path.constData(), &status) != 0)
        Die("read", path);
    const int number = int(inodes.size());
    inodes.emplace_back();
    inodes.back().mode = int(status.st_mode & 07777);
    if (S_ISLNK(status.st_mode)) {
        inodes.back().type = Type::Link;
        inodes.back().bytes = LinkTarget(path);
        return number;
    }
    if (!S_ISDIR(status.st_mode)) {
        inodes.back().bytes = kxtest::Read(QFile::decodeName(path));
        return number;
    }
    inodes.back().type = Type::Directory;
    DIR* directory = ::opendir(path.constData());
    if (!directory)
        Die("list", path);
    QList<QByteArray> names;
    while (const dirent* entry = ::readdir(directory))
        names << entry->d_name;
    ::closedir(directory);
    for (const QByteArray& name : names) {
        if (name != "." && name != "..") {
            const int child = ReadEntry(path + '/' + name);
            inodes[size_t(number)].names.insert(name, child);
        }
    }
    return number;
}

int DiskModel::Find(const QByteArray& path) const
{
    int inode = 0;
    for (const QByteArray& name : path.split('/')) {
        if (name.isEmpty())
            continue;
        if (inodes[size_t(inode)].type != Type::Directory)
            return -1;
        inode = inodes[size_t(inode)].names.value(name, -1);
        if (inode < 0)
            return -1;
    }
    return inode;
}

void DiskModel::Apply(const DiskStep& step)
{
    if (step.inode >= int(inodes.size()))
        inodes.resize(size_t(step.inode) + 1);
    const auto names = [this](int directory) -> QMap<QByteArray, int>& {
        return inodes[size_t(directory)].names;
    };
    switch (step.kind) {
    case Kind::Make:
        inodes[size_t(step.inode)].type = Type(step.position);
        inodes[size_t(step.inode)].mode = step.mode;
        inodes[size_t(step.inode)].bytes = step.bytes;
        names(step.directory).insert(step.name, step.inode);
        break;
    case Kind::Link:
        names(step.directory).insert(step.name, step.inode);
        break;
    case Kind::Unlink:
        names(step.directory).remove(step.name);
        break;
    case Kind::Rename:
        names(step.directory).remove(step.name);
        names(step.secondDirectory).insert(step.secondName, step.inode);
        break;
    case Kind::Mode:
        inodes[size_t(step.inode)].mode = step.mode;
        break;
    case Kind::Write: {
        QByteArray& bytes = inodes[size_t(step.inode)].bytes;
        if (bytes.size() < step.position)
            bytes.append(step.position - bytes.size(), '\0');
        bytes.replace(step.position, step.bytes.size(), step.bytes);
        break;
    }
    case Kind::Resize: {
        QByteArray& bytes = inodes[size_t(step.inode)].bytes;
        if (step.position < bytes.size())
            bytes.truncate(step.position);
        else
            bytes.append(step.position - bytes.size(), '\0');
        break;
    }
    case Kind::Sync:
    case Kind::SyncAll:
        break;
    }
}

QStringList DiskModel::Lines(int inode) const
{
    QStringList lines;
    const auto collect = [&](const auto& self, int directory, const QString& prefix) -> void {
        const QMap<QByteArray, int>& names = inodes[size_t(directory)].names;
        for (auto entry = names.cbegin(); entry != names.cend(); ++entry) {
            const Inode& found = inodes[size_t(*entry)];
            const QString name = prefix + QFile::decodeName(entry.key());
            const QString mode = QString::number(found.mode, 8);
            if (found.type == Type::Link) {
                lines << name + QStringLiteral(" link ") + QFile::decodeName(found.bytes);
            } else if (found.type == Type::File) {
                lines << QStringLiteral("%1 file %2 %3 %4")
                             .arg(name, mode, QString::number(found.bytes.size()),
                                  kxtest::MD5Of(found.bytes));
            } else {
                lines << name + QStringLiteral(" dir ") + mode;
                self(self, *entry, name + QLatin1Char('/'));
            }
        }
    };
    collect(collect, inode, QString());
    lines.sort();
    return lines;
}

void DiskModel::WriteTo(int inode, const QByteArray& path) const
{
    const Inode& found = inodes[size_t(inode)];
    if (found.type == Type::Link) {
        if (::symlink(found.bytes.constData(), path.constData()) != 0)
            Die("link", path);
        return;
    }
    if (found.type == Type::File) {
        const int file = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (file < 0 ||
            ::write(file, found.bytes.constData(), size_t(found.bytes.size())) !=
                found.bytes.size() ||
            ::fchmod(file, mode_t(found.mode)) != 0)
            Die("write", path);
        ::close(file);
        return;
    }
    if (::mkdir(path.constData(), 0700) != 0)
        Die("make", path);
    for (auto entry = found.names.cbegin(); entry != found.names.cend(); ++entry)
        WriteTo(*entry, path + '/' + entry.key());
    if (::chmod(path.constData(), mode_t(found.mode)) != 0)
        Die("set the mode of", path);
}

DiskRecorder::DiskRecorder(const QByteArray& root)
    : root(root), start(DiskModel::Read(root)), live(start)
{
}

Verdict DiskRecorder::Enter(const DiskCall&)
{
    return {};
}

void DiskRecorder::Add(DiskStep step, const DiskCall& call)
{
    step.text = call.Text();
    live.Apply(step);
    steps.push_back(std::move(step));
}

void DiskRecorder::AddMake(Type type, const DiskCall& call)
{
    DiskStep step;
    step.kind = Kind::Make;
    step.position = qint64(type);
    step.inode = int(live.inodes.size());
    step.directory = live.Find(ParentOf(Below(call.path)));
    step.name = NameOf(call.path);
    step.mode = ModeOf(call.path);
    if (type == Type::Link)
        step.bytes = LinkTarget(call.path);
    if (step.directory < 0 || step.mode < 0)
        unknown << call.Text();
    else
        Add(step, call);
}

void DiskRecorder::AddOpen(const DiskCall& call, quint64 flags)
{
    const int inode = live.Find(Below(call.path));
    if ((flags & O_TMPFILE) == O_TMPFILE) {
        unknown << call.Text();
    } else if (inode < 0) {
        AddMake(Type::File, call);
    } else if ((flags & O_TRUNC) && !live.inodes[size_t(inode)].bytes.isEmpty()) {
        DiskStep step;
        step.kind = Kind::Resize;
        step.inode = inode;
        Add(step, call);
    }
}

// `position` is where the data went; -1 for the end of the descriptor's own position.
void DiskRecorder::AddWrite(const DiskCall& call, int descriptor, qint64 position)
{
    DiskStep step;
    step.kind = Kind::Write;
    step.inode = live.Find(Below(call.path));
    const QByteArray process = "/proc/" + QByteArray::number(call.thread);
    const QByteArray number = QByteArray::number(descriptor);
    if (position < 0) {
        QFile info(QString::fromLatin1(process + "/fdinfo/" + number));
        const QByteArray text = info.open(QIODevice::ReadOnly) ? info.readAll() : QByteArray();
        const QByteArray line = text.left(text.indexOf('\n'));
        position = line.mid(line.indexOf(':') + 1).trimmed().toLongLong() - call.result;
    }
    QFile file(QString::fromLatin1(process + "/fd/" + number));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered) || !file.seek(position)) {
        unknown << call.Text();
        return;
    }
    step.position = position;
    step.bytes = file.read(call.result);
    if (step.inode < 0 || step.bytes.size() != call.result)
        unknown << call.Text();
    else
        Add(step, call);
}

void DiskRecorder::AddNames(Kind kind, const DiskCall& call)
{
    DiskStep step;
    step.kind = kind;
    step.inode = live.Find(Below(call.path));
    step.directory = live.Find(ParentOf(Below(call.path)));
    step.name = NameOf(call.path);
    if (kind != Kind::Unlink) {
        step.secondDirectory = live.Find(ParentOf(Below(call.secondPath)));
        step.secondName = NameOf(call.secondPath);
    }
    if (kind == Kind::Link) {
        step.directory = step.secondDirectory;
        step.name = step.secondName;
    }
    if (step.inode < 0 || step.directory < 0 || (kind != Kind::Unlink && step.secondDirectory < 0))
        unknown << call.Text();
    else
        Add(step, call);
}

void DiskRecorder::Leave(const DiskCall& call)
{
    if (call.result < 0 || call.kind == DiskCall::Kind::Look)
        return;
    DiskStep step;
    step.inode = call.isGone ? -1 : live.Find(Below(call.path));
    const auto argument = [&](int number) { return qint64(call.arguments[number]); };
    switch (call.number) {
    case SYS_open:
        return AddOpen(call, call.arguments[1]);
    case SYS_openat:
        return AddOpen(call, call.arguments[2]);
    case SYS_creat:
        return AddOpen(call, O_CREAT | O_TRUNC);
    case SYS_mkdir:
    case SYS_mkdirat:
        return AddMake(Type::Directory, call);
    case SYS_symlink:
    case SYS_symlinkat:
        return AddMake(Type::Link, call);
    case SYS_write:
    case SYS_writev:
        // Nobody sees again what goes into a file without a name.
        return call.isGone || call.result == 0 ? void() : AddWrite(call, int(argument(0)), -1);
    case SYS_pwrite64:
        return call.isGone || call.result == 0 ? void()
                                               : AddWrite(call, int(argument(0)), argument(3));
    case SYS_copy_file_range:
        if (call.arguments[3] != 0)
            break;
        return call.result == 0 ? void() : AddWrite(call, int(argument(2)), -1);
    case SYS_sendfile:
        return call.result == 0 ? void() : AddWrite(call, int(argument(0)), -1);
    case SYS_ftruncate:
    case SYS_truncate:
        step.kind = Kind::Resize;
        step.position = argument(1);
        if (step.inode >= 0 && live.inodes[size_t(step.inode)].bytes.size() != step.position)
            Add(step, call);
        return;
    case SYS_rename:
    case SYS_renameat:
        return AddNames(Kind::Rename, call);
    case SYS_renameat2:
        if (call.arguments[4] & RENAME_EXCHANGE)
            break;
        return AddNames(Kind::Rename, call);
    case SYS_link:
    case SYS_linkat:
        return AddNames(Kind::Link, call);
    case SYS_unlink:
    case SYS_unlinkat:
    case SYS_rmdir:
        return AddNames(Kind::Unlink, call);
    case SYS_chmod:
    case SYS_fchmod:
    case SYS_fchmodat:
    case 452:
        step.kind = Kind::Mode;
        step.mode = ModeOf(call.path);
        if (step.inode >= 0)
            Add(step, call);
        return;
    case SYS_fsync:
    case SYS_fdatasync:
        step.kind = Kind::Sync;
        if (step.inode >= 0)
            Add(step, call);
        return;
    case SYS_syncfs:
        step.kind = Kind::SyncAll;
        return Add(step, call);
    // Times and owners are not looked at, and this sync promises nothing.
    case SYS_chown:
    case SYS_lchown:
    case SYS_fchown:
    case SYS_fchownat:
    case SYS_utime:
    case SYS_utimes:
    case SYS_futimesat:
    case SYS_utimensat:
    case SYS_sync_file_range:
        return;
    default:
        break;
    }
    unknown << call.Text();
}

} // namespace campaign
