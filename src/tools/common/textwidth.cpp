#include "textwidth.h"

#include <QList>

#include <algorithm>

namespace tools {

namespace {

struct Range
{
    uint first;
    uint last;
};

// East Asian scripts and symbols, in blocks: some of their characters are narrow, none of the wide
// ones is missing. Beyond the last plane of these everything counts as wide.
constexpr Range wideRanges[] = {
    {0x1100, 0x11ff}, {0x231a, 0x23ff}, {0x25aa, 0x25fe}, {0x2600, 0x27bf},    {0x2b00, 0x2bff},
    {0x2e80, 0xa4cf}, {0xa960, 0xa97f}, {0xac00, 0xd7ff}, {0xf900, 0xfaff},    {0xfe10, 0xfe1f},
    {0xfe30, 0xfe6f}, {0xff00, 0xff60}, {0xffe0, 0xffe6}, {0x10000, 0x10ffff},
};

// Makes an emoji of the character before it, which some terminals then show in two columns.
constexpr uint emojiSelector = 0xfe0f;

int ColumnsOf(uint c)
{
    if (c < 0x300)
        return 1;
    if (c == emojiSelector)
        return 1;
    const QChar::Category category = QChar::category(char32_t(c));
    if (category == QChar::Mark_NonSpacing || category == QChar::Mark_Enclosing)
        return 0;
    const bool wide =
        std::any_of(std::begin(wideRanges), std::end(wideRanges),
                    [c](const Range& range) { return c >= range.first && c <= range.last; });
    return wide ? 2 : 1;
}

QString Text(const QList<uint>& characters, qsizetype from, qsizetype to)
{
    return QString::fromUcs4(reinterpret_cast<const char32_t*>(characters.constData()) + from,
                             to - from);
}

} // namespace

int Columns(const QString& text)
{
    int columns = 0;
    for (const uint c : text.toUcs4())
        columns += ColumnsOf(c);
    return columns;
}

QString CutEnd(const QString& text, int columns)
{
    const QList<uint> characters = text.toUcs4();
    qsizetype end = 0;
    while (end < characters.size() && columns >= ColumnsOf(characters.at(end)))
        columns -= ColumnsOf(characters.at(end++));
    return Text(characters, 0, end);
}

QString CutMiddle(const QString& text, int columns)
{
    if (Columns(text) <= columns)
        return text;
    const QString gap = QStringLiteral("...");
    const int kept = columns - int(gap.size());
    if (kept < 2)
        return CutEnd(text, columns);
    // The end tells files of one directory apart, so it gets the odd column.
    const QString head = CutEnd(text, kept / 2);
    const QList<uint> characters = text.toUcs4();
    int room = kept - Columns(head);
    qsizetype begin = characters.size();
    while (begin > 0 && room >= ColumnsOf(characters.at(begin - 1)))
        room -= ColumnsOf(characters.at(--begin));
    return head + gap + Text(characters, begin, characters.size());
}

QString Printable(const QString& text)
{
    QList<uint> characters = text.toUcs4();
    for (uint& c : characters) {
        const QChar::Category category = QChar::category(char32_t(c));
        if (category == QChar::Other_Control || category == QChar::Other_Format ||
            category == QChar::Separator_Line || category == QChar::Separator_Paragraph)
            c = u'?';
    }
    return Text(characters, 0, characters.size());
}

} // namespace tools
