#include "transferrate.h"

namespace updater {

void TransferRate::Add(qint64 time, quint64 bytes)
{
    samples.push_back({time, bytes});
    while (samples.size() > 1 && samples[1].time <= time - window)
        samples.pop_front();
}

quint64 TransferRate::BytesPerSecond() const
{
    if (samples.empty())
        return 0;
    const Sample& first = samples.front();
    const Sample& last = samples.back();
    const qint64 duration = last.time - first.time;
    if (duration < shortest)
        return 0;
    return static_cast<quint64>(static_cast<double>(last.bytes - first.bytes) * 1000 /
                                static_cast<double>(duration));
}

} // namespace updater
