#pragma once

#include <cstddef>
#include <cstring>

namespace kxtest {

/**
 * The position of a virtual operation in the table of its class, counted from 0, as callers that
 * were compiled against an older header use it; -1 for an operation that is not virtual.
 * Under the Itanium C++ ABI, which all supported compilers but Microsoft's follow.
 */
template <typename Pointer>
int VtableIndex(Pointer member)
{
    struct Representation
    {
        std::ptrdiff_t pointer;
        std::ptrdiff_t adjustment;
    } representation;
    static_assert(sizeof(representation) == sizeof(member), "not the Itanium C++ ABI");
    std::memcpy(&representation, &member, sizeof(member));
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = representation.adjustment & 1;
    const std::ptrdiff_t offset = representation.pointer;
#else
    const bool isVirtual = representation.pointer & 1;
    const std::ptrdiff_t offset = representation.pointer - 1;
#endif
    return isVirtual ? static_cast<int>(offset / static_cast<int>(sizeof(void*))) : -1;
}

/** Where the operations of a class begin that derives from QObject alone. */
constexpr int firstAfterQObject = 12;

} // namespace kxtest
