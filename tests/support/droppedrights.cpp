#include "droppedrights.h"

#include <sys/fsuid.h>
#include <unistd.h>

namespace kxtest {
namespace {
constexpr id_t nobody = 65534;
}

// The group goes first and comes back last: only root may change it.
DroppedRights::DroppedRights() : user(geteuid()), group(getegid())
{
    if (user != 0)
        return;
    setfsgid(nobody);
    setfsuid(nobody);
}

DroppedRights::~DroppedRights()
{
    if (user != 0)
        return;
    setfsuid(user);
    setfsgid(group);
}

} // namespace kxtest
