#include "disktrace.h"

#include <QHash>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <set>
#include <vector>

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace campaign {
namespace {

using Kind = DiskCall::Kind;

// Where a call names what it works on; -1 for an argument that it does not have.
struct Shape
{
    long number;
    const char* name;
    Kind kind;
    int descriptor; //!< of an open file
    int directory;  //!< that `path` starts from
    int path;
    int secondDirectory;
    int secondPath;
};

constexpr Shape OnFile(long number, const char* name, Kind kind, int descriptor = 0)
{
    return {number, name, kind, descriptor, -1, -1, -1, -1};
}

constexpr Shape OnPath(long number, const char* name, Kind kind, int path = 0)
{
    return {number, name, kind, -1, -1, path, -1, -1};
}

constexpr Shape At(long number, const char* name, Kind kind, int directory = 0)
{
    return {number, name, kind, -1, directory, directory + 1, -1, -1};
}

// Opening counts as a change when it can make or cut a file: see Classify().
constexpr Shape shapes[] = {
    OnPath(SYS_open, "open", Kind::Look),
    At(SYS_openat, "openat", Kind::Look),
    At(SYS_openat2, "openat2", Kind::Change),
    OnPath(SYS_creat, "creat", Kind::Change),
    OnFile(SYS_write, "write", Kind::Change),
    OnFile(SYS_pwrite64, "pwrite64", Kind::Change),
    OnFile(SYS_writev, "writev", Kind::Change),
    OnFile(SYS_pwritev, "pwritev", Kind::Change),
    OnFile(SYS_pwritev2, "pwritev2", Kind::Change),
    OnFile(SYS_copy_file_range, "copy_file_range", Kind::Change, 2),
    OnFile(SYS_sendfile, "sendfile", Kind::Change),
    OnFile(SYS_splice, "splice", Kind::Change, 2),
    OnFile(SYS_ioctl, "ioctl", Kind::Change),
    OnFile(SYS_mmap, "mmap", Kind::Change, 4),
    OnFile(SYS_ftruncate, "ftruncate", Kind::Change),
    OnPath(SYS_truncate, "truncate", Kind::Change),
    OnFile(SYS_fallocate, "fallocate", Kind::Change),
    {SYS_rename, "rename", Kind::Change, -1, -1, 0, -1, 1},
    {SYS_renameat, "renameat", Kind::Change, -1, 0, 1, 2, 3},
    {SYS_renameat2, "renameat2", Kind::Change, -1, 0, 1, 2, 3},
    {SYS_link, "link", Kind::Change, -1, -1, 0, -1, 1},
    {SYS_linkat, "linkat", Kind::Change, -1, 0, 1, 2, 3},
    OnPath(SYS_symlink, "symlink", Kind::Change, 1),
    At(SYS_symlinkat, "symlinkat", Kind::Change, 1),
    OnPath(SYS_unlink, "unlink", Kind::Change),
    At(SYS_unlinkat, "unlinkat", Kind::Change),
    OnPath(SYS_rmdir, "rmdir", Kind::Change),
    OnPath(SYS_mkdir, "mkdir", Kind::Change),
    At(SYS_mkdirat, "mkdirat", Kind::Change),
    OnPath(SYS_mknod, "mknod", Kind::Change),
    At(SYS_mknodat, "mknodat", Kind::Change),
    OnPath(SYS_chmod, "chmod", Kind::Change),
    OnFile(SYS_fchmod, "fchmod", Kind::Change),
    At(SYS_fchmodat, "fchmodat", Kind::Change),
    At(452, "fchmodat2", Kind::Change),
    OnPath(SYS_chown, "chown", Kind::Change),
    OnPath(SYS_lchown, "lchown", Kind::Change),
    OnFile(SYS_fchown, "fchown", Kind::Change),
    At(SYS_fchownat, "fchownat", Kind::Change),
    OnPath(SYS_utime, "utime", Kind::Change),
    OnPath(SYS_utimes, "utimes", Kind::Change),
    At(SYS_futimesat, "futimesat", Kind::Change),
    At(SYS_utimensat, "utimensat", Kind::Change),
    OnPath(SYS_setxattr, "setxattr", Kind::Change),
    OnPath(SYS_lsetxattr, "lsetxattr", Kind::Change),
    OnFile(SYS_fsetxattr, "fsetxattr", Kind::Change),
    OnPath(SYS_removexattr, "removexattr", Kind::Change),
    OnPath(SYS_lremovexattr, "lremovexattr", Kind::Change),
    OnFile(SYS_fremovexattr, "fremovexattr", Kind::Change),
    OnFile(SYS_fsync, "fsync", Kind::Sync),
    OnFile(SYS_fdatasync, "fdatasync", Kind::Sync),
    OnFile(SYS_syncfs, "syncfs", Kind::Sync),
    OnFile(SYS_sync_file_range, "sync_file_range", Kind::Sync),
    OnFile(SYS_read, "read", Kind::Look),
    OnFile(SYS_pread64, "pread64", Kind::Look),
    OnFile(SYS_readv, "readv", Kind::Look),
    OnFile(SYS_getdents64, "getdents64", Kind::Look),
    OnFile(SYS_fstat, "fstat", Kind::Look),
    OnPath(SYS_stat, "stat", Kind::Look),
    OnPath(SYS_lstat, "lstat", Kind::Look),
    At(SYS_newfstatat, "newfstatat", Kind::Look),
    At(SYS_statx, "statx", Kind::Look),
    OnPath(SYS_access, "access", Kind::Look),
    At(SYS_faccessat, "faccessat", Kind::Look),
    At(SYS_faccessat2, "faccessat2", Kind::Look),
    OnPath(SYS_readlink, "readlink", Kind::Look),
    At(SYS_readlinkat, "readlinkat", Kind::Look),
    OnPath(SYS_statfs, "statfs", Kind::Look),
    OnFile(SYS_fstatfs, "fstatfs", Kind::Look),
    OnFile(SYS_flock, "flock", Kind::Look),
};

const Shape* ShapeOf(long number)
{
    static const QHash<long, const Shape*> known = [] {
        QHash<long, const Shape*> table;
        for (const Shape& shape : shapes)
            table.insert(shape.number, &shape);
        return table;
    }();
    return known.value(number, nullptr);
}

std::vector<sock_filter> Filter(bool withLooks, long only)
{
    std::vector<sock_filter> filter = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    for (const Shape& shape : shapes) {
        // Whether an open makes a file is looked at later.
        const bool isOpen = shape.number == SYS_open || shape.number == SYS_openat;
        if (shape.kind == Kind::Look && !withLooks && !isOpen)
            continue;
        if (only >= 0 && shape.number != only)
            continue;
        const auto number = static_cast<std::uint32_t>(shape.number);
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    return filter;
}

[[noreturn]] void Die(const char* what)
{
    qFatal("cannot trace: %s: %s", what, std::strerror(errno));
    std::abort();
}

QByteArray LinkText(const QByteArray& path)
{
    std::array<char, 8192> text;
    const ssize_t size = ::readlink(path.constData(), text.data(), text.size());
    return size < 0 ? QByteArray() : QByteArray(text.data(), size);
}

// "." and ".." and double separators, by the text alone.
QByteArray Cleaned(const QByteArray& path)
{
    QList<QByteArray> kept;
    for (const QByteArray& component : path.split('/')) {
        if (component == "..") {
            if (!kept.isEmpty())
                kept.removeLast();
        } else if (!component.isEmpty() && component != ".") {
            kept << component;
        }
    }
    return '/' + kept.join('/');
}

/** One run. */
class Run
{
public:
    Run(const TracedCommand& command, DiskWatcher& watcher) : command(command), watcher(watcher) {}

    TracedEnd Go()
    {
        Start();
        for (;;) {
            int status = 0;
            const pid_t thread = ::waitpid(-1, &status, __WALL | __WNOTHREAD);
            if (thread < 0 && errno == EINTR)
                continue;
            if (thread < 0)
                return end;
            Handle(thread, status);
            if (known.empty())
                return end;
        }
    }

private:
    void Start()
    {
        // All that needs memory is made before the fork: other threads may hold locks.
        std::vector<char*> arguments{const_cast<char*>(command.program.constData())};
        for (const QByteArray& argument : command.arguments)
            arguments.push_back(const_cast<char*>(argument.constData()));
        arguments.push_back(nullptr);
        std::vector<char*> environment;
        for (const QByteArray& variable : command.environment)
            environment.push_back(const_cast<char*>(variable.constData()));
        environment.push_back(nullptr);
        std::vector<sock_filter> filter = Filter(command.withLooks, command.only);
        sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
        const char* output = command.output.constData();

        leader = ::fork();
        if (leader < 0)
            Die("fork");
        if (leader == 0) {
            const int file = ::open(output, O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(file, STDOUT_FILENO);
            ::dup2(file, STDERR_FILENO);
            ::close(file);
            ::umask(022);
            ::signal(SIGPIPE, SIG_DFL);
            ::alarm(static_cast<unsigned>(command.timeout));
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
                ::_exit(126);
            ::raise(SIGSTOP);
            if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
                ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
                ::_exit(126);
            ::execve(arguments[0], arguments.data(), environment.data());
            ::_exit(127);
        }
        int status = 0;
        if (::waitpid(leader, &status, 0) != leader || !WIFSTOPPED(status))
            Die("the program did not stop");
        constexpr long wanted = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACESECCOMP |
                                PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                                PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
        if (::ptrace(PTRACE_SETOPTIONS, leader, nullptr, wanted) != 0)
            Die("PTRACE_SETOPTIONS");
        known.insert(leader);
        Resume(PTRACE_CONT, leader);
    }

    void Resume(__ptrace_request how, pid_t thread, int signal = 0)
    {
        // Fails only for one that is being killed.
        ::ptrace(how, thread, nullptr, reinterpret_cast<void*>(static_cast<long>(signal)));
    }

    void Handle(pid_t thread, int status)
    {
        if (WIFEXITED(status) || WIFSIGNALED(status)) {
            if (thread == leader) {
                end.isKilled = isKilled;
                end.signal = WIFSIGNALED(status) && !isKilled ? WTERMSIG(status) : 0;
                end.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            known.erase(thread);
            if (thread == inside)
                Next();
            return;
        }
        if (!WIFSTOPPED(status))
            return;
        const int signal = WSTOPSIG(status);
        const int event = status >> 16;
        if (event == PTRACE_EVENT_SECCOMP)
            Enter(thread);
        else if (signal == (SIGTRAP | 0x80))
            Leave(thread);
        else if (event != 0)
            Resume(PTRACE_CONT, thread);
        else if (known.insert(thread).second && signal == SIGSTOP)
            Resume(PTRACE_CONT, thread); // a new thread begins stopped
        else
            Resume(PTRACE_CONT, thread, signal);
    }

    void Enter(pid_t thread)
    {
        if (inside != 0) {
            waiting.push_back(thread);
            return;
        }
        DiskCall call;
        if (isKilled || !Read(thread, &call)) {
            Resume(PTRACE_CONT, thread);
            return;
        }
        const Verdict verdict = watcher.Enter(call);
        if (verdict.what == Verdict::What::KillBefore) {
            Kill();
            return;
        }
        if (verdict.what == Verdict::What::Fail || verdict.what == Verdict::What::Swallow)
            Skip(thread, -qint64(verdict.what == Verdict::What::Fail ? verdict.error : 0));
        killsAfter = verdict.what == Verdict::What::KillAfter;
        if (!killsAfter && !watcher.WantsResults()) {
            Resume(PTRACE_CONT, thread);
            return;
        }
        inside = thread;
        current = call;
        Resume(PTRACE_SYSCALL, thread);
    }

    void Leave(pid_t thread)
    {
        if (thread != inside) {
            Resume(PTRACE_CONT, thread);
            return;
        }
        user_regs_struct registers = {};
        if (::ptrace(PTRACE_GETREGS, thread, nullptr, &registers) == 0)
            current.result = static_cast<qint64>(registers.rax);
        watcher.Leave(current);
        if (killsAfter)
            Kill();
        else
            Resume(PTRACE_CONT, thread);
        Next();
    }

    void Next()
    {
        inside = 0;
        while (inside == 0 && !waiting.empty()) {
            const pid_t thread = waiting.front();
            waiting.pop_front();
            Enter(thread);
        }
    }

    void Kill()
    {
        isKilled = true;
        ::kill(leader, SIGKILL);
    }

    void Skip(pid_t thread, qint64 result)
    {
        user_regs_struct registers = {};
        if (::ptrace(PTRACE_GETREGS, thread, nullptr, &registers) != 0)
            return;
        registers.orig_rax = static_cast<unsigned long long>(-1);
        registers.rax = static_cast<unsigned long long>(result);
        ::ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
    }

    // False for a call on anything else than an entry below the root.
    bool Read(pid_t thread, DiskCall* call)
    {
        user_regs_struct registers = {};
        if (::ptrace(PTRACE_GETREGS, thread, nullptr, &registers) != 0)
            return false;
        const Shape* shape = ShapeOf(static_cast<long>(registers.orig_rax));
        if (!shape)
            return false;
        call->number = shape->number;
        call->name = shape->name;
        call->thread = thread;
        call->hasPath = shape->path >= 0;
        const quint64 arguments[] = {registers.rdi, registers.rsi, registers.rdx,
                                     registers.r10, registers.r8,  registers.r9};
        std::copy(std::begin(arguments), std::end(arguments), call->arguments);
        call->kind = Classify(*shape, *call);
        if (call->kind == Kind::Look && !command.withLooks)
            return false;
        if (!IsOfDisk(*call))
            return false;
        if (shape->descriptor >= 0)
            call->path =
                OfDescriptor(thread, static_cast<int>(arguments[shape->descriptor]), &call->isGone);
        else
            call->path = OfPath(thread, *call, shape->directory, shape->path);
        if (shape->secondPath >= 0)
            call->secondPath = OfPath(thread, *call, shape->secondDirectory, shape->secondPath);
        return IsBelow(call->path) || IsBelow(call->secondPath);
    }

    static Kind Classify(const Shape& shape, const DiskCall& call)
    {
        if (shape.number != SYS_open && shape.number != SYS_openat)
            return shape.kind;
        const quint64 flags = call.arguments[shape.path + 1];
        const bool changes = (flags & (O_CREAT | O_TRUNC)) || (flags & O_TMPFILE) == O_TMPFILE;
        return changes ? Kind::Change : Kind::Look;
    }

    static bool IsOfDisk(const DiskCall& call)
    {
        if (call.number == SYS_ioctl)
            return call.arguments[1] == FICLONE || call.arguments[1] == FICLONERANGE;
        if (call.number == SYS_mmap)
            return (call.arguments[2] & PROT_WRITE) && (call.arguments[3] & MAP_SHARED) &&
                   !(call.arguments[3] & MAP_ANONYMOUS);
        return true;
    }

    static QByteArray OfDescriptor(pid_t thread, int descriptor, bool* isGone = nullptr)
    {
        const QByteArray process = "/proc/" + QByteArray::number(thread);
        if (descriptor == AT_FDCWD)
            return LinkText(process + "/cwd");
        QByteArray path = LinkText(process + "/fd/" + QByteArray::number(descriptor));
        const QByteArray gone = " (deleted)";
        if (path.endsWith(gone)) {
            path.chop(gone.size());
            if (isGone)
                *isGone = true;
        }
        return path;
    }

    static QByteArray OfPath(pid_t thread, const DiskCall& call, int directory, int path)
    {
        const int start = directory < 0 ? AT_FDCWD : static_cast<int>(call.arguments[directory]);
        const QByteArray text = Text(thread, call.arguments[path]);
        const QByteArray own = "/proc/self/fd/";
        if (text.startsWith(own))
            return OfDescriptor(thread, text.mid(own.size()).toInt());
        if (text.startsWith('/'))
            return Cleaned(text);
        return Cleaned(OfDescriptor(thread, start) + '/' + text);
    }

    // A text in the program's memory, page by page; empty for a null pointer.
    static QByteArray Text(pid_t thread, quint64 address)
    {
        QByteArray text;
        while (address != 0 && text.size() < 8192) {
            std::array<char, 4096> page;
            const size_t size = page.size() - address % page.size();
            iovec here = {page.data(), size};
            iovec there = {reinterpret_cast<void*>(address), size};
            const ssize_t got = ::process_vm_readv(thread, &here, 1, &there, 1, 0);
            if (got <= 0)
                break;
            const void* end = std::memchr(page.data(), 0, static_cast<size_t>(got));
            if (end) {
                text.append(page.data(), static_cast<const char*>(end) - page.data());
                break;
            }
            text.append(page.data(), got);
            address += static_cast<quint64>(got);
        }
        return text;
    }

    bool IsBelow(const QByteArray& path) const
    {
        return path == command.root || path.startsWith(command.root + '/');
    }

    const TracedCommand& command;
    DiskWatcher& watcher;
    pid_t leader = 0;
    std::set<pid_t> known; // threads that have begun
    pid_t inside = 0;      // the thread whose call is under way
    std::deque<pid_t> waiting;
    DiskCall current;
    bool killsAfter = false;
    bool isKilled = false;
    TracedEnd end;
};

} // namespace

QByteArray DiskCall::Text() const
{
    QByteArray text = name;
    text += " '" + path + '\'';
    if (!secondPath.isEmpty())
        text += " '" + secondPath + '\'';
    return text;
}

bool TracedEnd::IsTimeout() const
{
    return signal == SIGALRM;
}

TracedEnd RunTraced(const TracedCommand& command, DiskWatcher& watcher)
{
    return Run(command, watcher).Go();
}

} // namespace campaign
