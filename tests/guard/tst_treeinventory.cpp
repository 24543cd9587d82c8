#include "treeinventory.h"

#include <QTemporaryDir>
#include <QTest>

#include <filesystem>
#include <fstream>

using guard::InventoryEntry;

/** Lists of trees whose names are any bytes. */
class TestTreeInventory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void NamesThatAreNoTextAreListed();
    void MarkOfByteOrderBelongsToAName();
};

namespace {

/** A directory that goes with all that is in it; Qt's own does not remove names that are no text.
 */
class Tree
{
public:
    ~Tree() { std::filesystem::remove_all(path); }

    void Make(const std::string& name) const
    {
        std::filesystem::create_directories((path / name).parent_path());
        std::ofstream(path / name) << "x";
    }

    QStringList Names() const
    {
        QList<InventoryEntry> entries;
        QString unreadable;
        if (!guard::TakeInventory(directory.path(), &entries, &unreadable))
            return {"unreadable: " + unreadable};
        QStringList names;
        for (const InventoryEntry& entry : std::as_const(entries))
            names << entry.name;
        return names;
    }

private:
    QTemporaryDir directory;
    std::filesystem::path path = directory.path().toStdString();
};

} // namespace

void TestTreeInventory::NamesThatAreNoTextAreListed()
{
    Tree tree;
    tree.Make("plain");
    tree.Make("Latin 1: \xe4");
    tree.Make("directory \xff/below");
    const QString broken(QChar::ReplacementCharacter);
    QCOMPARE(tree.Names(),
             QStringList({"Latin 1: " + broken, "directory " + broken + "/below", "plain"}));
}

void TestTreeInventory::MarkOfByteOrderBelongsToAName()
{
    Tree tree;
    tree.Make("app");
    tree.Make("\xef\xbb\xbf"
              "app");
    QCOMPARE(tree.Names(), QStringList({"app", QString(QChar(0xfeff)) + "app"}));
}

QTEST_GUILESS_MAIN(TestTreeInventory)
#include "tst_treeinventory.moc"
