// Preloaded into the program under test: counts its calls that change the disk, in KX_CALL_COUNT's
// file, or ends it without a word at call number KX_KILL_AT, before the call or, with
// KX_KILL_AFTER, after it. KX_LINK_ERROR is the error of every hard link; KX_SPOIL a text that
// reaches no file whole.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::atomic<long> calls{0};

void Count()
{
    const char* path = std::getenv("KX_CALL_COUNT");
    if (!path)
        return;
    // One byte a call: threads can add theirs without a lock.
    const int descriptor = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    static const auto next =
        reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(::dlsym(RTLD_NEXT, "write"));
    next(descriptor, ".", 1);
    ::close(descriptor);
}

template <typename Function, typename... Arguments>
auto Call(const char* name, Arguments... arguments)
{
    const char* at = std::getenv("KX_KILL_AT");
    const bool dies = ++calls == (at ? std::atol(at) : 0);
    Count();
    if (dies && !std::getenv("KX_KILL_AFTER"))
        ::kill(::getpid(), SIGKILL);
    const auto result = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name))(arguments...);
    if (dies)
        ::kill(::getpid(), SIGKILL);
    return result;
}

} // namespace

#define KX_EXPORT extern "C" __attribute__((visibility("default")))

KX_EXPORT ssize_t write(int descriptor, const void* data, size_t size)
{
    const char* spoilt = std::getenv("KX_SPOIL");
    std::string bytes(static_cast<const char*>(data), size);
    const size_t place = spoilt ? bytes.find(spoilt) : std::string::npos;
    if (place != std::string::npos)
        bytes[place] = '\0';
    return Call<ssize_t (*)(int, const void*, size_t)>(
        "write", descriptor, static_cast<const void*>(bytes.data()), size);
}

KX_EXPORT int rename(const char* from, const char* to) noexcept
{
    return Call<int (*)(const char*, const char*)>("rename", from, to);
}

KX_EXPORT int link(const char* from, const char* to) noexcept
{
    if (const char* error = std::getenv("KX_LINK_ERROR")) {
        errno = std::atoi(error);
        return -1;
    }
    return Call<int (*)(const char*, const char*)>("link", from, to);
}

KX_EXPORT int unlink(const char* path) noexcept
{
    return Call<int (*)(const char*)>("unlink", path);
}

KX_EXPORT int unlinkat(int directory, const char* path, int flags) noexcept
{
    return Call<int (*)(int, const char*, int)>("unlinkat", directory, path, flags);
}

KX_EXPORT int remove(const char* path) noexcept
{
    return Call<int (*)(const char*)>("remove", path);
}

KX_EXPORT int mkdir(const char* path, mode_t mode) noexcept
{
    return Call<int (*)(const char*, mode_t)>("mkdir", path, mode);
}

KX_EXPORT int rmdir(const char* path) noexcept
{
    return Call<int (*)(const char*)>("rmdir", path);
}

KX_EXPORT int fsync(int descriptor)
{
    return Call<int (*)(int)>("fsync", descriptor);
}

KX_EXPORT int syncfs(int descriptor) noexcept
{
    return Call<int (*)(int)>("syncfs", descriptor);
}
