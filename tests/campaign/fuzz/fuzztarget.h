#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

/** What the fuzz targets share: libFuzzer's entry points, and how a broken claim ends a run. */

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed);
/** libFuzzer's own mutation, for custom mutators. */
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

/** Ends the run as a finding when `claim` does not hold. */
#define KX_FUZZ_REQUIRE(claim) ((claim) ? void() : kxfuzz::Fail(#claim, __FILE__, __LINE__))

namespace kxfuzz {

[[noreturn]] inline void Fail(const char* claim, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, claim);
    std::abort();
}

/** The input without a copy; must not outlive it. */
inline QByteArray Bytes(const uint8_t* data, size_t size)
{
    return QByteArray::fromRawData(reinterpret_cast<const char*>(data), qsizetype(size));
}

/** The input as a client decodes a reply. */
inline QString Text(const uint8_t* data, size_t size)
{
    return QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
}

/** The input as code units: halves of surrogate pairs, which no decoder of UTF-8 would give. */
inline QString CodeUnits(const uint8_t* data, size_t size)
{
    QString text(qsizetype(size / sizeof(QChar)), Qt::Uninitialized);
    if (!text.isEmpty())
        std::memcpy(text.data(), data, size_t(text.size()) * sizeof(QChar));
    return text;
}

} // namespace kxfuzz
