#pragma once

#include <QtGlobal>

#include <deque>

namespace updater {

/** Bytes per second over the last seconds, from a count of bytes that is read now and then. */
class TransferRate
{
public:
    /** Milliseconds that the rate looks back. */
    static constexpr qint64 window = 5000;
    /** Milliseconds that it takes to say anything: a shorter time says little. */
    static constexpr qint64 shortest = 500;

    void Clear() { samples.clear(); }
    /** The count at a time, in milliseconds of any clock; neither goes back before Clear(). */
    void Add(qint64 time, quint64 bytes);
    quint64 BytesPerSecond() const;

private:
    struct Sample
    {
        qint64 time;
        quint64 bytes;
    };
    std::deque<Sample> samples; // the first one is the window's begin, or the last before it
};

} // namespace updater
