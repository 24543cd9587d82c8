#pragma once

#include <sys/types.h>

namespace kxtest {

/**
 * While it lives, the file system treats this thread, and the threads that it starts, as an
 * ordinary user, so that tests about rights mean the same for root. Does nothing for a process that
 * is no root. Entries that the user must reach have to be made reachable first: a temporary
 * directory is not.
 */
class DroppedRights
{
public:
    DroppedRights();
    ~DroppedRights();
    DroppedRights(const DroppedRights&) = delete;
    DroppedRights& operator=(const DroppedRights&) = delete;

private:
    uid_t user;
    gid_t group;
};

} // namespace kxtest
