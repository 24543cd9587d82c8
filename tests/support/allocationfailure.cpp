#include "allocationfailure.h"

#include <new>

namespace kxtest {
namespace {

struct Plan
{
    bool armed = false;
    std::size_t minimum = 0;
    std::size_t maximum = 0;
    int toPass = 0;
    int toFail = 0;
    int failures = 0;
};

thread_local Plan plan;

bool MustFail(std::size_t size)
{
    if (!plan.armed || size < plan.minimum || size > plan.maximum)
        return false;
    if (plan.toPass > 0) {
        --plan.toPass;
        return false;
    }
    if (plan.toFail == 0)
        return false;
    --plan.toFail;
    ++plan.failures;
    return true;
}

} // namespace

AllocationFailure::AllocationFailure(std::size_t minimum, std::size_t maximum, int first, int count)
{
    plan = {true, minimum, maximum, first - 1, count, 0};
}

AllocationFailure::~AllocationFailure()
{
    plan.armed = false;
}

void AllocationFailure::Disarm()
{
    plan.armed = false;
}

int AllocationFailure::Failures() const
{
    return plan.failures;
}

} // namespace kxtest

// Forwards to the plain operator, so that the sanitizers see matching pairs of new and delete.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    if (kxtest::MustFail(size))
        return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
