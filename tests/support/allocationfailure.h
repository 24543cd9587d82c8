#pragma once

#include <cstddef>
#include <limits>

namespace kxtest {

/**
 * Makes nothrow allocations of this thread fail while it lives.
 * Of those whose size lies between `minimum` and `maximum`, the `first`-th (counted from 1) and the
 * ones after it fail, `count` in all. Only in programs that link kx_failingnew, which replaces the
 * nothrow operator new. Not to be nested.
 */
class AllocationFailure
{
public:
    explicit AllocationFailure(std::size_t minimum = 0,
                               std::size_t maximum = std::numeric_limits<std::size_t>::max(),
                               int first = 1, int count = std::numeric_limits<int>::max());
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    /** Fails only allocations of exactly the size of `T`. */
    template <typename T>
    static AllocationFailure Of(int first = 1, int count = std::numeric_limits<int>::max())
    {
        return AllocationFailure(sizeof(T), sizeof(T), first, count);
    }

    /** Ends the failing before the end of life. */
    void Disarm();
    /** How many allocations were refused. */
    int Failures() const;
};

} // namespace kxtest
