#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kxfuzz {

/**
 * Mutates a text of tags as a text of tags: repeats, moves, drops and swaps what stands between '<'
 * and '>', puts one of `fragments` in, or mutates one quoted value and leaves the rest. Byte by
 * byte nearly every mutation of XML is no XML, and no reader would be reached. Two in five calls
 * mutate bytes all the same. For LLVMFuzzerCustomMutator(), whose arguments come first.
 */
size_t MutateXml(unsigned char* data, size_t size, size_t maxSize, unsigned int seed,
                 const std::vector<std::string>& fragments);

} // namespace kxfuzz
