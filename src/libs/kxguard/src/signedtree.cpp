#include "strictcodec.h"
#include "treeaccess.h"

#include <kxguard/signedtree.h>

#include <QCryptographicHash>
#include <QSet>
#include <QStringList>

#include <algorithm>
#include <limits>

namespace guard {
namespace {

constexpr quint64 largestSignature = 16 * 1024;
constexpr quint64 largestSums = 64 * 1024 * 1024;
constexpr qsizetype longestName = 4096;
constexpr qsizetype shownDifferences = 5;

/** What tells a tree from its list: the first few as texts, all as a number. */
class Differences
{
public:
    void Add(const QString& name, const QString& what)
    {
        if (++count <= shownDifferences)
            shown.append(Quoted(name) + QLatin1Char(' ') + what);
    }
    bool IsEmpty() const { return count == 0; }
    QString Text() const
    {
        QString text = shown.join(QStringLiteral(", "));
        if (count > shown.size())
            text += QStringLiteral(", and %1 more").arg(count - shown.size());
        return text;
    }

private:
    QStringList shown;
    qsizetype count = 0;
};

/** Compares the entries of one tree with a list. */
class TreeComparison
{
public:
    TreeComparison(const TreeDirectory& root, const Sums& sums) : root(root), sums(sums) {}

    /** The reason why the tree could not be read; empty otherwise. */
    QString Run()
    {
        QStringList pending{QString()};
        while (!pending.isEmpty()) {
            const QString name = pending.takeLast();
            const QString problem = CompareDirectory(name, pending);
            if (!problem.isEmpty())
                return problem;
        }
        AddMissing();
        return {};
    }
    const Differences& Found() const { return differences; }

private:
    static QString Failed(const QString& name, const QString& reason)
    {
        return Quoted(name.isEmpty() ? QStringLiteral(".") : name) + QStringLiteral(": ") + reason;
    }

    QString CompareDirectory(const QString& name, QStringList& pending)
    {
        TreeDirectory directory;
        QList<TreeEntry> entries;
        QString problem = directory.OpenBelow(root, name);
        if (problem.isEmpty())
            problem = directory.List(&entries);
        if (!problem.isEmpty())
            return Failed(name, problem);
        // What is shown of many differences is the same in each run.
        std::sort(entries.begin(), entries.end(),
                  [](const TreeEntry& a, const TreeEntry& b) { return a.name < b.name; });
        for (const TreeEntry& entry : std::as_const(entries)) {
            const QString path = name.isEmpty() ? entry.name : name + QLatin1Char('/') + entry.name;
            problem = CompareEntry(directory, entry, path, pending);
            if (!problem.isEmpty())
                return Failed(path, problem);
        }
        return {};
    }

    QString CompareEntry(const TreeDirectory& directory, const TreeEntry& entry,
                         const QString& path, QStringList& pending)
    {
        if (!entry.isText || path.size() > longestName) {
            differences.Add(path, QStringLiteral("has a name that no list can have"));
            return {};
        }
        const bool isListed = sums.files.contains(path) || sums.links.contains(path);
        if (isListed)
            seen.insert(path);
        switch (entry.kind) {
        case EntryKind::File:
            return CompareFile(directory, entry.name, path);
        case EntryKind::Link:
            return CompareLink(directory, entry.name, path);
        case EntryKind::Directory:
            if (isListed)
                differences.Add(path, QStringLiteral("is a directory"));
            pending.append(path);
            return {};
        default:
            differences.Add(path, QStringLiteral("is neither a file nor a link"));
            return {};
        }
    }

    QString CompareFile(const TreeDirectory& directory, const QString& name, const QString& path)
    {
        // The list and its signature do not list themselves.
        if (path == SumsName() || path == SignatureName())
            return {};
        if (sums.links.contains(path)) {
            differences.Add(path, QStringLiteral("is a file instead of a link"));
            return {};
        }
        const auto listed = sums.files.constFind(path);
        if (listed == sums.files.cend()) {
            differences.Add(path, QStringLiteral("is not in the list"));
            return {};
        }
        QCryptographicHash hash(QCryptographicHash::Sha256);
        const QString problem =
            directory.Read(name, std::numeric_limits<quint64>::max(),
                           [&hash](QByteArrayView block) { hash.addData(block); });
        if (problem.isEmpty() && hash.result().toHex() != *listed)
            differences.Add(path, QStringLiteral("has another content"));
        return problem;
    }

    QString CompareLink(const TreeDirectory& directory, const QString& name, const QString& path)
    {
        if (sums.files.contains(path)) {
            differences.Add(path, QStringLiteral("is a link instead of a file"));
            return {};
        }
        const auto listed = sums.links.constFind(path);
        if (listed == sums.links.cend()) {
            differences.Add(path, QStringLiteral("is not in the list"));
            return {};
        }
        QString target;
        bool isText = false;
        const QString problem = directory.ReadLink(name, &target, &isText);
        if (problem.isEmpty() && (!isText || target != *listed))
            differences.Add(
                path,
                QStringLiteral("leads to %1 instead of %2").arg(Quoted(target), Quoted(*listed)));
        return problem;
    }

    void AddMissing()
    {
        QStringList names = sums.files.keys() + sums.links.keys();
        std::sort(names.begin(), names.end());
        for (const QString& name : std::as_const(names)) {
            if (!seen.contains(name))
                differences.Add(name, QStringLiteral("is missing"));
        }
    }

    const TreeDirectory& root;
    const Sums& sums;
    QSet<QString> seen;
    Differences differences;
};

QString PathIn(const QString& root, const QString& name)
{
    return root + QLatin1Char('/') + name;
}

Problem Refused(int code, const QString& path, const QString& reason)
{
    return {code, QStringLiteral("Cannot accept '%1': %2.").arg(path, reason)};
}

// One of the two files of the signature.
Problem ReadSigned(const TreeDirectory& root, const QString& rootPath, const QString& name,
                   quint64 limit, int tooLargeCode, QByteArray* bytes)
{
    EntryKind kind = EntryKind::Missing;
    quint64 size = 0;
    QString problem = root.Look(name, &kind, &size);
    if (problem.isEmpty() && kind == EntryKind::Missing)
        return Refused(SignatureMissing, rootPath,
                       QStringLiteral("it is not signed, there is no '%1'").arg(name));
    if (problem.isEmpty() && kind != EntryKind::File)
        return Refused(SignatureMissing, PathIn(rootPath, name),
                       QStringLiteral("it is not a regular file, so nothing is signed"));
    if (size > limit)
        return Refused(tooLargeCode, PathIn(rootPath, name),
                       QStringLiteral("it is larger than %1 bytes").arg(limit));
    if (problem.isEmpty())
        problem = root.Read(name, limit, [bytes](QByteArrayView block) { bytes->append(block); });
    return problem.isEmpty() ? Problem()
                             : Refused(PackageUnreadable, PathIn(rootPath, name), problem);
}

} // namespace

Problem CheckSignedTree(const QString& root, const QList<PublicKey>& keys,
                        PackageIdentity* identity)
{
    TreeDirectory directory;
    const QString unreadable = directory.Open(root);
    if (!unreadable.isEmpty())
        return Refused(PackageUnreadable, root, unreadable);

    QByteArray signatureText;
    QByteArray sumsText;
    Problem problem = ReadSigned(directory, root, SignatureName(), largestSignature,
                                 SignatureMalformed, &signatureText);
    if (!problem)
        problem = ReadSigned(directory, root, SumsName(), largestSums, SumsMalformed, &sumsText);
    if (problem)
        return problem;

    Signature signature;
    PackageIdentity found;
    problem = Signature::Parse(signatureText, &signature);
    if (!problem)
        problem = signature.Verify(sumsText, keys);
    if (!problem)
        problem = ReadTrustedComment(signature.TrustedComment(), &found);
    if (problem)
        return Refused(problem.code, PathIn(root, SignatureName()), problem.text);

    // Only now: what was not signed by a trusted key is not even parsed.
    Sums sums;
    problem = Sums::Parse(sumsText, &sums);
    if (problem)
        return Refused(problem.code, PathIn(root, SumsName()), problem.text);
    TreeComparison comparison(directory, sums);
    const QString unread = comparison.Run();
    if (!unread.isEmpty())
        return Refused(PackageUnreadable, root, unread);
    if (!comparison.Found().IsEmpty())
        return Refused(SumsDiffer, root,
                       QStringLiteral("its files are not exactly those that were signed: ") +
                           comparison.Found().Text());
    if (identity)
        *identity = found;
    return {};
}

} // namespace guard
