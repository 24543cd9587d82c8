#pragma once

#include "fileops.h"

#include <cerrno>

struct stat;

namespace common::fileops {

/** Calls `call` again as long as a signal interrupts it. */
template <typename Call>
auto Retry(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

inline Error LastError()
{
    return Error(errno, std::system_category());
}

inline Error Result(int result)
{
    return result < 0 ? LastError() : Error();
}

void ToAttributes(const struct stat& status, Attributes* attributes);
/** Permissions and times for an open file or directory. */
Error ApplyTo(int handle, const Attributes& attributes);

} // namespace common::fileops
