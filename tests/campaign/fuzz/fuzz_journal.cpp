// The journal of an install, beside the application: what a power cut has left of one, or somebody
// has written there, must not be taken for one.

#include "fuzztarget.h"

#include "journal.h"

#include <QCryptographicHash>
#include <QSet>

namespace {

using guard::InventoryEntry;
using guard::Journal;
using Match = guard::Journal::Match;

// With the digest that its last line leaves out: no mutation would hit upon one.
QByteArray Completed(const QByteArray& text)
{
    const qsizetype begin = text.lastIndexOf("\nend ") + 1;
    if (begin == 0 || !text.endsWith('\n'))
        return text;
    const QByteArray digest =
        QCryptographicHash::hash(text.left(begin), QCryptographicHash::Sha256);
    return text.chopped(1) + ' ' + digest.toHex() + '\n';
}

void CheckCuts(const QByteArray& text)
{
    for (qsizetype end = text.indexOf('\n'); end + 1 < text.size();
         end = text.indexOf('\n', end + 1)) {
        Journal part;
        KX_FUZZ_REQUIRE(!Journal::Parse(text.left(end + 1), &part));
        KX_FUZZ_REQUIRE(part.entries.isEmpty() && part.application.isEmpty());
    }
    Journal part;
    KX_FUZZ_REQUIRE(!Journal::Parse(text.chopped(1), &part));
}

void CheckMatches(const Journal& journal)
{
    QList<InventoryEntry> tree = journal.entries;
    QSet<QString> names;
    for (const InventoryEntry& entry : std::as_const(tree))
        names.insert(entry.name);
    // No tree has a name twice.
    if (names.size() != tree.size())
        return;
    KX_FUZZ_REQUIRE(journal.Compare(tree) == Match::Complete);
    InventoryEntry stranger;
    // Longer than any of the journal's names.
    for (const InventoryEntry& entry : std::as_const(tree))
        stranger.name += entry.name + QLatin1Char('x');
    KX_FUZZ_REQUIRE(journal.Compare(tree + QList<InventoryEntry>{stranger}) == Match::Complete);
    if (tree.isEmpty())
        return;
    const InventoryEntry last = tree.takeLast();
    KX_FUZZ_REQUIRE(journal.Compare(tree) == Match::Part);
    KX_FUZZ_REQUIRE(journal.Compare(tree + QList<InventoryEntry>{stranger}) == Match::Other);
    InventoryEntry other = last;
    other.size += 1;
    KX_FUZZ_REQUIRE(journal.Compare(tree + QList<InventoryEntry>{other}) == Match::Other);
    InventoryEntry special = last;
    special.kind = InventoryEntry::Special;
    KX_FUZZ_REQUIRE(journal.Compare(tree + QList<InventoryEntry>{special}) == Match::Other);
}

void Check(const QByteArray& text)
{
    Journal journal;
    if (!Journal::Parse(text, &journal)) {
        KX_FUZZ_REQUIRE(journal.entries.isEmpty() && journal.application.isEmpty());
        return;
    }
    KX_FUZZ_REQUIRE(journal.Text() == text);
    CheckCuts(text);
    CheckMatches(journal);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text = kxfuzz::Bytes(data, size);
    Check(text);
    Check(Completed(text));
    return 0;
}
