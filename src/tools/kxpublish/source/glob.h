#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <bitset>
#include <vector>

namespace publish {

/**
 * One pattern of a list of rules, without what stands around it ("!", a slash at the end), matched
 * against the bytes of a whole name. "?" is one byte, "*" any number, "[...]" one of a set, none of
 * them a slash; "**" between slashes or at an end crosses them; a backslash takes the next byte as
 * it is. The time is bounded by the length of the pattern times that of the name, whatever they
 * hold.
 */
class Glob
{
public:
    Glob() = default;
    explicit Glob(QByteArrayView pattern);

    /** False for a pattern with an open bracket or a lone backslash: it matches nothing. */
    bool IsValid() const;
    bool Matches(QByteArrayView name) const;

private:
    struct Token
    {
        enum Kind {
            Byte,      // this one
            Set,       // one of `set`
            Star,      // any number but slashes
            Anything,  // any number
            MaySkip,   // nothing; the next token as well may match nothing
            UpToSlash, // any number, and a slash
        };
        Kind kind = Byte;
        char byte = 0;
        std::bitset<256> set = {};
    };
    using States = std::vector<char>;

    qsizetype AddStars(QByteArrayView pattern, qsizetype begin, bool atBegin);
    static qsizetype ReadSet(QByteArrayView pattern, qsizetype begin, std::bitset<256>& set);
    void Enter(size_t index, States& states) const;
    bool MatchesTokens(QByteArrayView name) const;

    bool valid = true;
    QByteArray prefix; // what a name begins with, letter for letter
    std::vector<Token> tokens;
};

} // namespace publish
