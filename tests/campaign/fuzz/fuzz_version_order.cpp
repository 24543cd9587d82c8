// The order of versions, over three texts, a line each.

#include "fuzztarget.h"

#include <kxcommon/version.h>

#include <QStringList>

namespace {

using common::Version;

// For versions of at most four components below 10,000, without a suffix; -1 for all other texts.
qint64 Weight(const QString& text)
{
    const QStringList parts = text.split(QLatin1Char('.'));
    if (parts.size() > 4)
        return -1;
    qint64 weight = 0;
    for (qsizetype i = 0; i < 4; ++i) {
        const QString part = i < parts.size() ? parts.at(i) : QStringLiteral("0");
        if (part.isEmpty() || part.size() > 4)
            return -1;
        qint64 number = 0;
        for (const QChar c : part) {
            if (c.unicode() < '0' || c.unicode() > '9')
                return -1;
            number = number * 10 + (c.unicode() - '0');
        }
        weight = weight * 10'000 + number;
    }
    return weight;
}

bool AreEqual(const Version& a, const Version& b)
{
    return !(a > b) && !(b > a);
}

void CheckPair(const QString& a, const QString& b)
{
    KX_FUZZ_REQUIRE(!(Version(a) > Version(b) && Version(b) > Version(a)));
    if (Weight(a) >= 0 && Weight(b) >= 0)
        KX_FUZZ_REQUIRE((Version(a) > Version(b)) == (Weight(a) > Weight(b)));
    // A text that is none is earlier than any version.
    KX_FUZZ_REQUIRE(!(Version(QString()) > Version(a)));
    if (Weight(a) >= 0) {
        KX_FUZZ_REQUIRE(Version(a) > Version(QString()));
        KX_FUZZ_REQUIRE(Version(a) > Version(a + QLatin1Char('-') + b));
    }
}

void CheckTriple(const Version& a, const Version& b, const Version& c)
{
    if (a > b && b > c)
        KX_FUZZ_REQUIRE(a > c);
    if (AreEqual(a, b) && AreEqual(b, c))
        KX_FUZZ_REQUIRE(AreEqual(a, c));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QStringList lines = kxfuzz::Text(data, size).split(QLatin1Char('\n'));
    const QStringList texts = {lines.value(0), lines.value(1), lines.value(2)};
    for (const QString& a : texts) {
        KX_FUZZ_REQUIRE(!(Version(a) > Version(a)));
        for (const QString& b : texts) {
            CheckPair(a, b);
            for (const QString& c : texts)
                CheckTriple(Version(a), Version(b), Version(c));
        }
    }
    return 0;
}
