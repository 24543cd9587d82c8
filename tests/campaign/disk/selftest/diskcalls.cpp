// Makes one call of each kind on a disk, in the directory that is named; its status is the number
// of the first error.
#include <cerrno>
#include <cstdio>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int MakeCalls()
{
    if (::mkdir("directory", 0755) != 0)
        return errno;
    const int file = ::open("directory/.new", O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (file < 0)
        return errno;
    if (::write(file, "contents", 8) != 8 || ::fchmod(file, 0640) != 0 || ::fsync(file) != 0)
        return errno;
    ::close(file);
    if (::rename("directory/.new", "directory/file") != 0 ||
        ::symlink("directory/file", "link") != 0 || ::link("directory/file", "second") != 0 ||
        ::truncate("second", 4) != 0 || ::unlink("kept") != 0)
        return errno;
    const int directory = ::open("directory", O_RDONLY | O_DIRECTORY);
    if (directory < 0 || ::fsync(directory) != 0)
        return errno;
    ::close(directory);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || ::chdir(argv[1]) != 0)
        return 255;
    // On a thread of its own: the tracer follows.
    int error = 0;
    std::thread thread([&] { error = MakeCalls(); });
    thread.join();
    // What is elsewhere is nobody's business.
    std::FILE* other = std::fopen("/dev/null", "w");
    std::fputs("x", other);
    std::fclose(other);
    return error;
}
