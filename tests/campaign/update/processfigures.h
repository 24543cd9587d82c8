#pragma once

#include <QString>
#include <QtGlobal>

namespace kxtest {

/** What this process holds at a moment. */
struct ProcessFigures
{
    int descriptors = 0;
    int threads = 0;
    qint64 heap = 0;     //!< bytes that malloc() has given out; 0 under a sanitizer
    qint64 resident = 0; //!< bytes in memory

    static ProcessFigures Now();
    QString Text() const;
};

/**
 * Starts the program anew, once, with a malloc() that keeps nothing back for a thread that comes
 * again: what is freed then counts as freed, at once. Call it first in main(); nothing happens
 * under a sanitizer.
 */
void CountEveryByte(char** argv);

} // namespace kxtest
