#include "platform.h"

#include <QDateTime>

#include <tuple>

namespace publish {
namespace {

auto Tied(const FileStatus& status)
{
    return std::tie(status.mode, status.size, status.device, status.inode, status.modifiedNs,
                    status.changedNs);
}

} // namespace

bool FileStatus::operator==(const FileStatus& other) const
{
    return Tied(*this) == Tied(other);
}

bool FileStatus::IsYoung() const
{
    // A time in the future comes from another machine's clock, and tells as little.
    const qint64 nowNs = QDateTime::currentMSecsSinceEpoch() * 1000000;
    return nowNs - qMax(modifiedNs, changedNs) < 2500000000;
}

} // namespace publish
