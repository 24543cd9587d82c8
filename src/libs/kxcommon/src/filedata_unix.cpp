#include "fileops_unix.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __linux__
#include <linux/fs.h>
#endif

#include <algorithm>
#include <array>

namespace common::fileops {
namespace {

constexpr std::uint64_t largestBuffer = 256 * 1024;
constexpr std::uint64_t smallestBuffer = 4096;
// Below this, reading and writing is faster than asking the system to do it.
constexpr std::uint64_t smallFile = 128 * 1024;
constexpr size_t sharedBlock = 8 * 1024 * 1024;

// The whole content at once, where the file system lets two files share it.
bool Share(int source, int target)
{
#ifdef FICLONE
    return ioctl(target, FICLONE, source) == 0;
#else
    static_cast<void>(source);
    static_cast<void>(target);
    return false;
#endif
}

// One block copied inside the kernel; -1 and an error number where that is not possible.
ssize_t CopyInKernel(int source, int target, size_t size)
{
#ifdef __linux__
    return copy_file_range(source, nullptr, target, nullptr, size, 0);
#else
    static_cast<void>(source);
    static_cast<void>(target);
    static_cast<void>(size);
    errno = ENOSYS;
    return -1;
#endif
}

bool IsRefusal(int number)
{
    return number == ENOSYS || number == EXDEV || number == EINVAL || number == EOPNOTSUPP ||
           number == EPERM || number == EBADF;
}

struct Copying
{
    int source;
    int target;
    const File::Advance& advance;
    bool* isReading;
    bool inKernel;
    size_t bufferSize;

    Error Told(std::uint64_t bytes) const
    {
        if (const Error error = At(Step::Block)) {
            *isReading = false;
            return error;
        }
        return advance(bytes) ? Error() : std::make_error_code(std::errc::operation_canceled);
    }

    Error Write(const char* data, size_t size) const
    {
        *isReading = false;
        while (size > 0) {
            const ssize_t written = Retry([&] { return write(target, data, size); });
            if (written < 0)
                return LastError();
            data += written;
            size -= static_cast<size_t>(written);
        }
        return {};
    }

    // Copies from the two positions on, up to `size` bytes or to the end of the source.
    Error Range(std::uint64_t size)
    {
        while (size > 0 && inKernel) {
            const size_t block = static_cast<size_t>(std::min<std::uint64_t>(size, sharedBlock));
            const ssize_t copied = Retry([&] { return CopyInKernel(source, target, block); });
            if (copied < 0 && !IsRefusal(errno)) {
                // The call does not tell the two ends apart; only a bad medium fails in reading.
                *isReading = errno == EIO;
                return LastError();
            }
            if (copied <= 0) {
                inKernel = false;
                break;
            }
            size -= static_cast<std::uint64_t>(copied);
            if (const Error error = Told(static_cast<std::uint64_t>(copied)))
                return error;
        }
        std::vector<char> buffer;
        while (size > 0) {
            if (buffer.empty())
                buffer.resize(bufferSize);
            const size_t block = static_cast<size_t>(std::min<std::uint64_t>(size, buffer.size()));
            const ssize_t got = Retry([&] { return read(source, buffer.data(), block); });
            *isReading = true;
            if (got < 0)
                return LastError();
            if (got == 0)
                return {};
            if (const Error error = Write(buffer.data(), static_cast<size_t>(got)))
                return error;
            size -= static_cast<std::uint64_t>(got);
            if (const Error error = Told(static_cast<std::uint64_t>(got)))
                return error;
        }
        return {};
    }

    // Copies what is stored and leaves the holes between it. False: holes cannot be found here.
    bool Islands(std::uint64_t size, Error* error)
    {
#ifdef SEEK_DATA
        off_t end = 0;
        for (;;) {
            const off_t data = lseek(source, end, SEEK_DATA);
            if (data < 0 && errno == ENXIO)
                break;
            const off_t hole = data < 0 ? -1 : lseek(source, data, SEEK_HOLE);
            if (hole < 0) {
                if (end == 0)
                    return false;
                *error = LastError();
                return true;
            }
            if (lseek(source, data, SEEK_SET) < 0 || lseek(target, data, SEEK_SET) < 0)
                *error = LastError();
            else if (!(*error = Told(static_cast<std::uint64_t>(data - end))))
                *error = Range(static_cast<std::uint64_t>(hole - data));
            if (*error)
                return true;
            end = hole;
        }
        *isReading = false;
        *error = Result(ftruncate(target, static_cast<off_t>(size)));
        if (!*error && size > static_cast<std::uint64_t>(end))
            *error = Told(size - static_cast<std::uint64_t>(end));
        return true;
#else
        static_cast<void>(size);
        static_cast<void>(error);
        return false;
#endif
    }
};

} // namespace

File::~File()
{
    if (handle >= 0)
        close(handle);
}

Error File::OpenToRead(const Directory& parent, const Name& name, bool follow)
{
    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW);
    struct stat status = {};
    if (fstatat(parent.handle, name.c_str(), &status, follow ? 0 : AT_SYMLINK_NOFOLLOW) < 0)
        return LastError();
    // Looked at before as well: the mere opening of a device can have effects.
    if (!S_ISREG(status.st_mode))
        return std::make_error_code(std::errc::operation_not_supported);
    handle = Retry([&] { return openat(parent.handle, name.c_str(), flags); });
    if (handle < 0 || fstat(handle, &status) < 0)
        return LastError();
    return S_ISREG(status.st_mode) ? Error()
                                   : std::make_error_code(std::errc::operation_not_supported);
}

Error File::Create(const Directory& parent, const Name& name)
{
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    handle = Retry([&] { return openat(parent.handle, name.c_str(), flags, 0600); });
    return Result(handle);
}

Error File::Read(Attributes* attributes) const
{
    struct stat status = {};
    if (fstat(handle, &status) < 0)
        return LastError();
    ToAttributes(status, attributes);
    return {};
}

Error File::Apply(const Attributes& attributes) const
{
    return ApplyTo(handle, attributes);
}

Error File::Close()
{
    // After an interrupted close the handle is gone all the same.
    const int result = close(std::exchange(handle, -1));
    return result < 0 && errno != EINTR ? LastError() : Error();
}

Error File::CopyContent(const File& source, const Attributes& attributes, const File& target,
                        const Advance& advance, bool* isReading)
{
    *isReading = false;
    const bool isLarge = attributes.size >= smallFile;
    // One byte more than the size: a file that did not grow is read in one call, the end in
    // another.
    const auto buffer = std::clamp(attributes.size + 1, smallestBuffer, largestBuffer);
    Copying copying{source.handle, target.handle, advance,
                    isReading,     isLarge,       static_cast<size_t>(buffer)};
    if (isLarge && Share(source.handle, target.handle))
        return copying.Told(attributes.size);
    Error error;
    if (attributes.sparse && isLarge && copying.Islands(attributes.size, &error))
        return error;
    // Up to its end, wherever that is by now.
    return copying.Range(UINT64_MAX);
}

} // namespace common::fileops
