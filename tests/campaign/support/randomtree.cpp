#include "randomtree.h"

#include "treebuilder.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>

namespace campaign {
namespace {

constexpr int modes[] = {0644, 0755, 0600, 0444};

// Legal on every file system of the system and in a manifest, and each wrong in a program that does
// not quote, encode or compare as it should. Not in a manifest: "#", "?", "%", blanks at the ends
// of a name, and what begins like the letter of a drive.
QStringList OddNames()
{
    return {
        QStringLiteral("with blank"),
        QStringLiteral("two  blanks"),
        QStringLiteral("für alle.txt"),
        QStringLiteral("fu\u0308r alle.txt"),
        QStringLiteral("comma,at@"),
        QStringLiteral("(round)"),
        QStringLiteral("-rf"),
        QStringLiteral("--help"),
        QStringLiteral("a&b;c"),
        QStringLiteral("<tag>"),
        QStringLiteral("\"quoted\""),
        QStringLiteral("it's"),
        QStringLiteral("a+b=c"),
        QStringLiteral("$HOME"),
        QStringLiteral("*"),
        QStringLiteral("~"),
        QStringLiteral("ab:c"),
        QStringLiteral("[1]{2}"),
        QStringLiteral("Readme"),
        QStringLiteral("readme"),
        QStringLiteral("app.old"),
        QStringLiteral("x.kxnew"),
        QStringLiteral("日本語.dat"),
        QStringLiteral("\U0001F600"),
        QStringLiteral("trailing."),
        QStringLiteral("two..dots"),
        QString(255, QLatin1Char('n')),
        QString(120, QChar(0xe9)),
    };
}

QString ParentOf(const QString& name)
{
    const qsizetype separator = name.lastIndexOf(QLatin1Char('/'));
    return separator < 0 ? QString() : name.left(separator);
}

// From the directory of `link`, shortest form: as manifests have them.
QString RelativeTarget(const QString& link, const QString& target)
{
    return QDir(QLatin1Char('/') + ParentOf(link)).relativeFilePath(QLatin1Char('/') + target);
}

} // namespace

/** Draws entries and names. */
class RandomTree::Maker
{
public:
    Maker(RandomTree* tree, quint32 seed) : tree(tree), random(seed), oddNames(OddNames()) {}

    int Below(int limit) { return int(random.bounded(quint32(limit))); }

    Entry File()
    {
        Entry entry;
        switch (Below(10)) {
        case 0:
            break;
        case 1:
            entry.size = 4096 * (1 + Below(4)); // whole pages
            break;
        case 2:
            entry.size = 65536 - Below(2);
            break;
        default:
            entry.size = 1 + Below(Below(2) ? 65536 : 700);
        }
        entry.contents = random.generate();
        entry.mode = modes[Below(4)];
        return entry;
    }

    Entry LargeFile()
    {
        Entry entry = File();
        entry.size = 200000 + Below(200000);
        return entry;
    }

    /** A link that is to stand at `link`. */
    Entry Link(const QString& link)
    {
        QString target;
        switch (Below(4)) {
        case 0:
            target = QStringLiteral("gone-%1").arg(Below(100)); // dangling
            break;
        case 1:
            target = ParentOf(AnyName()); // a directory, perhaps the root
            break;
        default:
            target = AnyName();
        }
        Entry entry;
        if (!target.isEmpty() && target != link)
            entry.target = RelativeTarget(link, target);
        // The link's own directory is ".", which lists write in more ways than one.
        if (entry.target.isEmpty() || entry.target == QLatin1String("."))
            entry.target = QStringLiteral("gone");
        return entry;
    }

    QString AnyName()
    {
        if (tree->entries.isEmpty())
            return QString();
        return std::next(tree->entries.cbegin(), Below(int(tree->entries.size()))).key();
    }

    QString Component()
    {
        if (Below(3) == 0)
            return oddNames.at(Below(int(oddNames.size())));
        return QStringLiteral("%1%2").arg(QChar('a' + Below(6))).arg(Below(100));
    }

    QString FreeName()
    {
        while (true) {
            QString name = directories.at(Below(int(directories.size())));
            if (Below(4) == 0) {
                name = Join(name, Component());
                if (name.count(QLatin1Char('/')) < 5 && IsFree(name))
                    directories << name;
                else
                    continue;
            }
            name = Join(name, Component());
            if (IsFree(name) && !IsDirectory(name))
                return name;
        }
    }

    void KnowDirectories()
    {
        for (auto entry = tree->entries.cbegin(); entry != tree->entries.cend(); ++entry) {
            for (QString at = ParentOf(entry.key()); !at.isEmpty(); at = ParentOf(at)) {
                if (!directories.contains(at))
                    directories << at;
            }
        }
    }

private:
    static QString Join(const QString& directory, const QString& name)
    {
        return directory.isEmpty() ? name : directory + QLatin1Char('/') + name;
    }

    // Nothing has the name, or the name of a parent.
    bool IsFree(const QString& name) const
    {
        for (QString at = name; !at.isEmpty(); at = ParentOf(at)) {
            if (tree->entries.contains(at))
                return false;
        }
        return true;
    }

    bool IsDirectory(const QString& name) const
    {
        const auto next = tree->entries.lowerBound(name + QLatin1Char('/'));
        return next != tree->entries.cend() && next.key().startsWith(name + QLatin1Char('/'));
    }

    RandomTree* tree;
    QRandomGenerator random;
    QStringList oddNames;
    QStringList directories{QString(), QStringLiteral("bin"), QStringLiteral("lib")};
};

bool RandomTree::Entry::HasContentsOf(const Entry& other) const
{
    if (IsLink() || other.IsLink())
        return target == other.target;
    return size == other.size && (size == 0 || contents == other.contents);
}

RandomTree::RandomTree(quint32 seed, int count)
{
    Maker maker(this, seed);
    Entry program = maker.File();
    program.mode = 0755;
    Put(QStringLiteral("bin/app"), program);
    Put(maker.FreeName(), maker.LargeFile());
    while (entries.size() < count) {
        const QString name = maker.FreeName();
        Put(name, maker.Below(5) == 0 ? maker.Link(name) : maker.File());
    }
}

RandomTree RandomTree::Mutate(quint32 seed) const
{
    RandomTree next = *this;
    Maker maker(&next, seed);
    maker.KnowDirectories();
    const QStringList names = entries.keys();
    for (const QString& name : names) {
        if (!next.entries.contains(name))
            continue;
        Entry& entry = next.entries[name];
        switch (maker.Below(14)) {
        case 0: // contents
        case 1:
            entry = maker.File();
            break;
        case 2: // mode
            if (!entry.IsLink())
                entry.mode = modes[maker.Below(4)];
            break;
        case 3: // gone
            if (name != QStringLiteral("bin/app"))
                next.entries.remove(name);
            break;
        case 4: // a file or a link becomes a directory
            if (name != QStringLiteral("bin/app")) {
                next.entries.remove(name);
                next.Put(name + QLatin1Char('/') + maker.Component(), maker.File());
            }
            break;
        case 5: // a directory becomes a file
            if (const QString parent = ParentOf(name); parent.contains(QLatin1Char('/')))
                next.Put(parent, maker.File());
            break;
        case 6: // a file becomes a link, a link a file
            entry = entry.IsLink() ? maker.File() : maker.Link(name);
            break;
        default:
            break;
        }
    }
    const int added = 1 + maker.Below(5);
    for (int i = 0; i < added; ++i) {
        const QString name = maker.FreeName();
        next.Put(name, maker.Below(5) == 0 ? maker.Link(name) : maker.File());
    }
    // At least one difference that a manifest shows.
    Entry program = maker.File();
    program.mode = 0755;
    next.Put(QStringLiteral("bin/app"), program);
    return next;
}

RandomTree RandomTree::UpdatedFrom(const RandomTree& installed) const
{
    RandomTree result = *this;
    for (auto entry = result.entries.begin(); entry != result.entries.end(); ++entry) {
        const auto before = installed.entries.constFind(entry.key());
        if (before != installed.entries.cend() && !entry->IsLink() && entry->HasContentsOf(*before))
            entry->mode = before->mode;
    }
    return result;
}

void RandomTree::WriteTo(const QString& root) const
{
    // The usual modes of directories, whatever the mask of the process.
    const mode_t mask = ::umask(022);
    kxtest::TreeBuilder tree(root);
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        if (entry->IsLink())
            tree.Symlink(entry.key(), entry->target);
        else
            tree.File(entry.key(), Bytes(*entry), entry->mode);
    }
    ::umask(mask);
}

QStringList RandomTree::Lines() const
{
    QStringList lines;
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        if (entry->IsLink())
            lines << entry.key() + QStringLiteral(" link ") + entry->target;
        else
            lines << QStringLiteral("%1 file %2 %3 %4")
                         .arg(entry.key(), QString::number(entry->mode, 8),
                              QString::number(entry->size), kxtest::MD5Of(Bytes(*entry)));
        for (QString at = ParentOf(entry.key()); !at.isEmpty(); at = ParentOf(at))
            lines << at + QStringLiteral(" dir 755");
    }
    lines.removeDuplicates();
    lines.sort();
    return lines;
}

QByteArray RandomTree::Bytes(const Entry& file) const
{
    return kxtest::RandomBytes(file.size, file.contents);
}

void RandomTree::Put(const QString& name, const Entry& entry)
{
    for (QString at = ParentOf(name); !at.isEmpty(); at = ParentOf(at))
        entries.remove(at);
    const QString inside = name + QLatin1Char('/');
    auto below = entries.lowerBound(inside);
    while (below != entries.end() && below.key().startsWith(inside))
        below = entries.erase(below);
    entries.insert(name, entry);
}

} // namespace campaign
