#include "secretbytes.h"

#include <sodium.h>

namespace publish {

SecretBytes::SecretBytes(qsizetype size) : size(size)
{
    // Before the first use of the library, and harmless after it. It fails where a system has no
    // source of random numbers: then there are no keys either.
    if (sodium_init() < 0)
        qFatal("libsodium cannot be used on this system");
    // Locks what it allocates, puts guard pages around it, and zeroes it at the end.
    bytes.reset(static_cast<unsigned char*>(sodium_malloc(size_t(size))));
    Q_CHECK_PTR(bytes.get());
    sodium_memzero(bytes.get(), size_t(size));
}

void SecretBytes::Free::operator()(unsigned char* bytes) const
{
    sodium_free(bytes);
}

void SecretBytes::Truncate(qsizetype newSize)
{
    Q_ASSERT(newSize <= size);
    sodium_memzero(bytes.get() + newSize, size_t(size - newSize));
    size = newSize;
}

bool SecretBytes::operator==(const SecretBytes& other) const
{
    return size == other.size && sodium_memcmp(Data(), other.Data(), size_t(size)) == 0;
}

} // namespace publish
