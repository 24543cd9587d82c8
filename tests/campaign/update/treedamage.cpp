#include "treedamage.h"

#include "treebuilder.h"

#include <QRandomGenerator>

namespace kxtest {
namespace {

using Entry = campaign::RandomTree::Entry;

/** Does one thing to one entry after the other. */
class Damage
{
public:
    Damage(const QString& root, quint32 seed) : tree(root), random(seed) {}

    int Below(int limit) { return int(random.bounded(quint32(limit))); }

    /** False when the entry is no longer what it was. */
    bool Strike(const QString& name, Entry& entry);
    void AddStrangers();

private:
    bool StrikeFile(const QString& name, Entry& entry);
    void Replace(const QString& name);

    TreeBuilder tree;
    QRandomGenerator random;
};

// Something of another kind, where the entry was.
void Damage::Replace(const QString& name)
{
    tree.Remove(name);
    switch (Below(4)) {
    case 0:
        break;
    case 1:
        tree.File(name + QStringLiteral("/stranger"), "in a directory that was none");
        break;
    case 2:
        tree.Symlink(name, QStringLiteral("/etc/passwd"));
        break;
    default:
        tree.Dir(name);
        break;
    }
}

bool Damage::StrikeFile(const QString& name, Entry& entry)
{
    static const int modes[] = {0644, 0755, 0600, 0444, 0640, 0700};
    const QString path = tree.Path(name);
    QByteArray bytes = Read(path);
    const int mode = Mode(path);
    switch (Below(8)) {
    case 0:
        entry.mode = modes[Below(6)];
        SetMode(path, entry.mode);
        return true;
    case 1: // a bit: the size stays
    case 2:
    case 3:
        if (bytes.isEmpty())
            bytes = "no longer empty";
        else
            bytes[Below(int(bytes.size()))] ^= char(1 << Below(8));
        break;
    case 4:
        if (bytes.isEmpty())
            bytes = "x";
        else
            bytes.chop(1 + Below(int(bytes.size())));
        break;
    case 5:
        bytes += QByteArray(1 + Below(5000), '\0');
        break;
    default:
        Replace(name);
        return false;
    }
    tree.File(name, bytes, mode);
    return false;
}

bool Damage::Strike(const QString& name, Entry& entry)
{
    if (!entry.IsLink())
        return StrikeFile(name, entry);
    if (Below(2) == 0) {
        Replace(name);
    } else {
        tree.Remove(name);
        Below(2) == 0 ? tree.Symlink(name, entry.target + QLatin1Char('x'))
                      : tree.File(name, entry.target.toUtf8());
    }
    return false;
}

void Damage::AddStrangers()
{
    if (Below(2) == 0)
        tree.File(QStringLiteral("stranger"), "nobody asked for it");
    if (Below(3) == 0)
        tree.File(QStringLiteral("strange/.hidden"), "nobody sees it");
    if (Below(3) == 0)
        tree.Dir(QStringLiteral("strange/empty"));
    if (Below(3) == 0)
        tree.Symlink(QStringLiteral("strange-link"), QStringLiteral("../.."));
}

} // namespace

campaign::RandomTree DamageTree(const campaign::RandomTree& tree, const QString& root, quint32 seed)
{
    Damage damage(root, seed);
    campaign::RandomTree left;
    bool isDamaged = false;
    // Between one entry and all of them.
    const int oneIn = 1 + damage.Below(int(tree.Entries().size()));
    for (auto it = tree.Entries().cbegin(); it != tree.Entries().cend(); ++it) {
        Entry entry = it.value();
        const bool isLast = std::next(it) == tree.Entries().cend();
        bool isLeft = true;
        if (damage.Below(oneIn) == 0)
            isLeft = damage.Strike(it.key(), entry);
        while (isLeft && isLast && !isDamaged)
            isLeft = damage.Strike(it.key(), entry);
        isDamaged = isDamaged || !isLeft;
        if (isLeft)
            left.Put(it.key(), entry);
    }
    damage.AddStrangers();
    return left;
}

} // namespace kxtest
