// Preloaded into the program under test: sends it SIGINT, KX_INTERRUPT_TIMES times, when it has
// printed a text that holds KX_INTERRUPT_AT. The signal so comes in the middle of that very state.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <dlfcn.h>
#include <unistd.h>

extern "C" __attribute__((visibility("default"))) size_t fwrite(const void* data, size_t size,
                                                                size_t count, FILE* stream)
{
    using Function = size_t (*)(const void*, size_t, size_t, FILE*);
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "fwrite"));
    const size_t written = next(data, size, count, stream);
    const char* place = std::getenv("KX_INTERRUPT_AT");
    const std::string text(static_cast<const char*>(data), size * count);
    if (place && text.find(place) != std::string::npos) {
        for (int i = 0; i < std::atoi(std::getenv("KX_INTERRUPT_TIMES")); ++i)
            ::kill(::getpid(), std::atoi(std::getenv("KX_SIGNAL")));
    }
    return written;
}
