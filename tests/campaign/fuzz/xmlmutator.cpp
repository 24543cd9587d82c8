#include "xmlmutator.h"

#include "fuzztarget.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace kxfuzz {
namespace {

struct Span
{
    size_t begin = 0;
    size_t size = 0;
};

std::vector<Span> Tags(const std::string& text)
{
    std::vector<Span> tags;
    for (size_t begin = text.find('<'); begin != std::string::npos; begin = text.find('<', begin)) {
        const size_t end = text.find('>', begin);
        if (end == std::string::npos)
            break;
        tags.push_back({begin, end + 1 - begin});
        begin = end + 1;
    }
    return tags;
}

std::vector<Span> Values(const std::string& text)
{
    std::vector<Span> values;
    for (size_t begin = text.find('"'); begin != std::string::npos; begin = text.find('"', begin)) {
        const size_t end = text.find('"', begin + 1);
        if (end == std::string::npos)
            break;
        values.push_back({begin + 1, end - begin - 1});
        begin = end + 1;
    }
    return values;
}

// What would end the value or begin a tag is written as a reference.
std::string Escaped(const std::string& value)
{
    std::string escaped;
    for (const char c : value) {
        if (c == '"')
            escaped += "&quot;";
        else if (c == '<')
            escaped += "&lt;";
        else
            escaped += c;
    }
    return escaped;
}

void MutateValue(std::string& text, const Span& value)
{
    std::string bytes = text.substr(value.begin, value.size);
    const size_t room = bytes.size() + 32;
    bytes.resize(room);
    bytes.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(&bytes[0]), value.size, room));
    text.replace(value.begin, value.size, Escaped(bytes));
}

} // namespace

size_t MutateXml(unsigned char* data, size_t size, size_t maxSize, unsigned int seed,
                 const std::vector<std::string>& fragments)
{
    std::minstd_rand random(seed);
    const auto below = [&](size_t count) { return random() % count; };

    std::string text(reinterpret_cast<const char*>(data), size);
    const std::vector<Span> tags = Tags(text);
    const std::vector<Span> values = Values(text);
    const size_t kind = below(10);
    if (tags.empty() || kind < 4)
        return LLVMFuzzerMutate(data, size, maxSize);

    const Span one = tags[below(tags.size())];
    const Span other = tags[below(tags.size())];
    const Span& first = one.begin < other.begin ? one : other;
    const Span& second = one.begin < other.begin ? other : one;
    const size_t end = second.begin + second.size;
    if (kind < 7 && !values.empty()) {
        MutateValue(text, values[below(values.size())]);
    } else if (kind == 7) {
        text.insert(one.begin, fragments[below(fragments.size())]);
    } else if (below(2)) {
        // A run of tags again, elsewhere.
        text.insert(tags[below(tags.size())].begin, text.substr(first.begin, end - first.begin));
    } else if (below(2) || one.begin == other.begin) {
        text.erase(first.begin, end - first.begin);
    } else {
        const std::string moved = text.substr(first.begin, first.size);
        text.replace(
            first.begin, end - first.begin,
            text.substr(second.begin, second.size) +
                text.substr(first.begin + first.size, second.begin - first.begin - first.size) +
                moved);
    }
    text.resize(std::min(text.size(), maxSize));
    std::memcpy(data, text.data(), text.size());
    return text.size();
}

} // namespace kxfuzz
