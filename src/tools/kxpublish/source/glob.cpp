#include "glob.h"

#include <algorithm>

namespace publish {
namespace {

struct NamedSet
{
    const char* name;
    bool (*has)(int byte);
};

bool IsBetween(int byte, char first, char last)
{
    return byte >= first && byte <= last;
}

bool IsAlpha(int byte)
{
    return IsBetween(byte | 0x20, 'a', 'z');
}

bool IsAlnum(int byte)
{
    return IsAlpha(byte) || IsBetween(byte, '0', '9');
}

// ASCII, whatever the locale: the result must not depend on the machine.
constexpr NamedSet namedSets[] = {
    {"alnum", IsAlnum},
    {"alpha", IsAlpha},
    {"blank", [](int byte) { return byte == ' ' || byte == '\t'; }},
    {"cntrl", [](int byte) { return byte < 0x20 || byte == 0x7f; }},
    {"digit", [](int byte) { return IsBetween(byte, '0', '9'); }},
    {"graph", [](int byte) { return IsBetween(byte, '!', '~'); }},
    {"lower", [](int byte) { return IsBetween(byte, 'a', 'z'); }},
    {"print", [](int byte) { return IsBetween(byte, ' ', '~'); }},
    {"punct", [](int byte) { return IsBetween(byte, '!', '~') && !IsAlnum(byte); }},
    {"space", [](int byte) { return byte == ' ' || IsBetween(byte, '\t', '\r'); }},
    {"upper", [](int byte) { return IsBetween(byte, 'A', 'Z'); }},
    {"xdigit",
     [](int byte) { return IsBetween(byte, '0', '9') || IsBetween(byte | 0x20, 'a', 'f'); }},
};

bool AddNamedSet(QByteArrayView name, std::bitset<256>& set)
{
    for (const NamedSet& named : namedSets) {
        if (name != QByteArrayView(named.name))
            continue;
        for (int byte = 0; byte < 128; ++byte) {
            if (named.has(byte))
                set.set(size_t(byte));
        }
        return true;
    }
    return false;
}

constexpr qsizetype malformed = -1;

} // namespace

Glob::Glob(QByteArrayView pattern)
{
    const auto special = std::find_if(pattern.begin(), pattern.end(), [](char c) {
        return c == '*' || c == '?' || c == '[' || c == '\\';
    });
    const qsizetype literal = special - pattern.begin();
    prefix = pattern.first(literal).toByteArray();
    for (qsizetype i = literal; i < pattern.size();) {
        Token token;
        switch (pattern[i]) {
        case '*':
            // Behind a literal beginning two stars count as those at the beginning: so does git.
            i = AddStars(pattern, i, i == literal);
            continue;
        case '?':
            token.kind = Token::Set;
            token.set.set().reset('/');
            ++i;
            break;
        case '[':
            token.kind = Token::Set;
            i = ReadSet(pattern, i + 1, token.set);
            if (i == malformed) {
                valid = false;
                return;
            }
            break;
        case '\\':
            if (++i == pattern.size()) {
                valid = false;
                return;
            }
            Q_FALLTHROUGH();
        default:
            token.byte = pattern[i++];
        }
        tokens.push_back(token);
    }
}

// The stars at `begin`; gives the place behind them, and behind the slash that belongs to them.
qsizetype Glob::AddStars(QByteArrayView pattern, qsizetype begin, bool atBegin)
{
    qsizetype end = begin;
    while (end < pattern.size() && pattern[end] == '*')
        ++end;
    const QByteArrayView rest = pattern.sliced(end);
    const bool crosses = end - begin > 1 && (atBegin || pattern[begin - 1] == '/');
    Token token;
    token.kind = Token::Star;
    if (crosses && rest.startsWith('/')) {
        token.kind = Token::MaySkip;
        tokens.push_back(token);
        token.kind = Token::UpToSlash;
        ++end;
    } else if (crosses && (rest.isEmpty() || rest.startsWith("\\/"))) {
        token.kind = Token::Anything;
    }
    tokens.push_back(token);
    return end;
}

// The set that begins behind a bracket; gives the place behind its end.
qsizetype Glob::ReadSet(QByteArrayView pattern, qsizetype begin, std::bitset<256>& set)
{
    qsizetype i = begin;
    const auto at = [&](qsizetype place) { return place < pattern.size() ? pattern[place] : '\0'; };
    const bool negated = at(i) == '!' || at(i) == '^';
    if (negated)
        ++i;
    uchar before = 0; // what a range may begin with
    for (const qsizetype first = i; i == first || at(i) != ']'; ++i) {
        if (i >= pattern.size())
            return malformed;
        const char c = pattern[i];
        if (c == '-' && before && at(i + 1) && at(i + 1) != ']') {
            i += at(i + 1) == '\\' ? 2 : 1;
            if (i >= pattern.size())
                return malformed;
            for (int byte = before; byte <= uchar(pattern[i]); ++byte)
                set.set(size_t(byte));
            before = 0;
            continue;
        }
        const qsizetype close = c == '[' && at(i + 1) == ':' ? pattern.indexOf(']', i + 2) : -2;
        if (close == -1)
            return malformed;
        if (close >= i + 3 && pattern[close - 1] == ':') {
            if (!AddNamedSet(pattern.sliced(i + 2, close - i - 3), set))
                return malformed;
            i = close;
            before = 0;
            continue;
        }
        if (c == '\\' && ++i >= pattern.size())
            return malformed;
        before = uchar(pattern[i]);
        set.set(before);
    }
    if (negated)
        set.flip();
    set.reset('/');
    return i + 1;
}

bool Glob::IsValid() const
{
    return valid;
}

bool Glob::Matches(QByteArrayView name) const
{
    if (!valid || !name.startsWith(prefix))
        return false;
    name = name.sliced(prefix.size());
    if (tokens.empty())
        return name.isEmpty();
    return MatchesTokens(name);
}

// Every state that the bytes so far may have led to is kept at once: nothing is ever tried again.
bool Glob::MatchesTokens(QByteArrayView name) const
{
    States states(tokens.size() + 1, 0);
    States next(states.size(), 0);
    Enter(0, states);
    for (const char byte : name) {
        std::fill(next.begin(), next.end(), 0);
        bool alive = false;
        for (size_t i = 0; i < tokens.size(); ++i) {
            if (!states[i])
                continue;
            const Token& token = tokens[i];
            bool stays = false;
            bool passes = false;
            switch (token.kind) {
            case Token::Byte:
                passes = byte == token.byte;
                break;
            case Token::Set:
                passes = token.set.test(uchar(byte));
                break;
            case Token::Star:
                stays = byte != '/';
                break;
            case Token::Anything:
                stays = true;
                break;
            case Token::UpToSlash:
                stays = true;
                passes = byte == '/';
                break;
            case Token::MaySkip:
                break;
            }
            if (stays)
                Enter(i, next);
            if (passes)
                Enter(i + 1, next);
            alive = alive || stays || passes;
        }
        if (!alive)
            return false;
        states.swap(next);
    }
    return states.back();
}

// The state `index`, and those that need no byte to be reached from there.
void Glob::Enter(size_t index, States& states) const
{
    for (;;) {
        states[index] = 1;
        if (index == tokens.size())
            return;
        const Token::Kind kind = tokens[index].kind;
        if (kind == Token::MaySkip)
            Enter(index + 2, states);
        if (kind != Token::Star && kind != Token::Anything && kind != Token::MaySkip)
            return;
        ++index;
    }
}

} // namespace publish
