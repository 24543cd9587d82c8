#pragma once

#include <QtGlobal>

#include <memory>

namespace publish {

/**
 * A key or a passphrase: bytes that are kept out of the swap where the system allows it, and are
 * overwritten before their memory is given back. Can be moved and not copied.
 */
class SecretBytes
{
public:
    /** `size` zero bytes. */
    explicit SecretBytes(qsizetype size = 0);

    unsigned char* Data() { return bytes.get(); }
    const unsigned char* Data() const { return bytes.get(); }
    char* Text() { return reinterpret_cast<char*>(bytes.get()); }
    const char* Text() const { return reinterpret_cast<const char*>(bytes.get()); }
    qsizetype Size() const { return size; }
    bool IsEmpty() const { return size == 0; }
    /** Keeps the first `newSize` bytes, no more than there are. */
    void Truncate(qsizetype newSize);
    /** The same bytes; takes as long for different ones of one size as for equal ones. */
    bool operator==(const SecretBytes& other) const;

private:
    struct Free
    {
        void operator()(unsigned char* bytes) const;
    };

    std::unique_ptr<unsigned char, Free> bytes;
    qsizetype size;
};

} // namespace publish
