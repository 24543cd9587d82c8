// Compares the documents with the sources that they quote, list and link to.

#include "manifest.h"
#include "treebuilder.h"

#include <kxupdater/package.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QTest>

namespace {

const QString root = QStringLiteral(KX_SOURCE_DIR);

QString ReadFile(const QString& name)
{
    QFile file(root + QLatin1Char('/') + name);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QStringList Documents()
{
    QStringList names = QDir(root).entryList({QStringLiteral("*.md")}, QDir::Files);
    for (const QString& name :
         QDir(root + QStringLiteral("/docs")).entryList({QStringLiteral("*.md")}, QDir::Files))
        names.append(QStringLiteral("docs/") + name);
    return names;
}

/** The lines between the two marks "[name]" of a source, without their common indentation. */
QString MarkedPart(const QString& source, const QString& name)
{
    const QRegularExpression mark(
        QStringLiteral("^ *(//|#)! \\[%1\\]$").arg(QRegularExpression::escape(name)));
    QStringList part;
    int marks = 0;
    for (const QString& line : source.split(QLatin1Char('\n'))) {
        if (mark.match(line).hasMatch())
            ++marks;
        else if (marks == 1)
            part.append(line);
    }
    if (marks != 2)
        return QStringLiteral("%1 marks [%2] instead of two").arg(marks).arg(name);

    qsizetype indentation = -1;
    for (const QString& line : part) {
        qsizetype blanks = 0;
        while (blanks < line.size() && line.at(blanks) == QLatin1Char(' '))
            ++blanks;
        if (blanks < line.size() && (indentation < 0 || blanks < indentation))
            indentation = blanks;
    }
    for (QString& line : part)
        line = line.mid(qMax<qsizetype>(indentation, 0));
    return part.join(QLatin1Char('\n'));
}

QString WithoutCode(QString text)
{
    return text.remove(QRegularExpression(QStringLiteral("^```.*?^```$"),
                                          QRegularExpression::MultilineOption |
                                              QRegularExpression::DotMatchesEverythingOption));
}

/** The anchors of a document's headings, as forges make them. */
QStringList Anchors(const QString& text)
{
    QStringList anchors;
    const QRegularExpression heading(QStringLiteral("^#+ (.*)$"),
                                     QRegularExpression::MultilineOption);
    const QString prose = WithoutCode(text);
    for (auto match = heading.globalMatch(prose); match.hasNext();)
        anchors.append(match.next()
                           .captured(1)
                           .toLower()
                           .remove(QRegularExpression(QStringLiteral("[^a-z0-9 _-]")))
                           .replace(QLatin1Char(' '), QLatin1Char('-')));
    return anchors;
}

/** Code -> name of every enumerator of an errors.h. */
QMap<int, QString> EnumOf(const QString& header)
{
    QMap<int, QString> codes;
    const QRegularExpression row(QStringLiteral("(\\w+) = (6[0-9]{5}),"));
    const QString text = ReadFile(header);
    for (auto match = row.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch found = match.next();
        codes.insert(found.captured(2).toInt(), found.captured(1));
    }
    return codes;
}

} // namespace

class TestDocs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void QuotedCodeIsThatOfItsSource_data();
    void QuotedCodeIsThatOfItsSource();
    void LinksLeadToFiles_data();
    void LinksLeadToFiles();
    void ErrorTableListsExactlyTheCodesOfTheHeaders();
    void TextsOfTheErrorTableStandInTheSources();
    void WorkedExampleDescribesItsTree();
    void TestsOfTheThreatTableExist();
    void CodeOfTheThreatTableExists();
};

void TestDocs::QuotedCodeIsThatOfItsSource_data()
{
    QTest::addColumn<QString>("document");
    for (const QString& name : Documents())
        QTest::newRow(qPrintable(name)) << name;
}

void TestDocs::QuotedCodeIsThatOfItsSource()
{
    QFETCH(QString, document);
    // A quotation is "<!-- FILE [MARK] -->" and a fenced block in the next line. C++ and CMake are
    // always quotations: what is not compiled goes stale.
    const QRegularExpression fence(
        QStringLiteral("(?:^<!-- (\\S+) \\[(\\S+)\\] -->\\n)?^```(\\w*)\\n(.*?)^```$"),
        QRegularExpression::MultilineOption | QRegularExpression::DotMatchesEverythingOption);
    const QString text = ReadFile(document);
    QVERIFY(!text.isEmpty());
    for (auto match = fence.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch block = match.next();
        const QString quoted = block.captured(4).chopped(block.captured(4).isEmpty() ? 0 : 1);
        if (block.captured(1).isEmpty()) {
            QVERIFY2(block.captured(3) != QLatin1String("cpp") &&
                         block.captured(3) != QLatin1String("cmake"),
                     qPrintable(QStringLiteral("code without a source:\n") + quoted));
            continue;
        }
        const QString source = ReadFile(block.captured(1));
        QVERIFY2(!source.isEmpty(), qPrintable(block.captured(1)));
        QCOMPARE(quoted, MarkedPart(source, block.captured(2)));
    }
}

void TestDocs::LinksLeadToFiles_data()
{
    QuotedCodeIsThatOfItsSource_data();
}

void TestDocs::LinksLeadToFiles()
{
    QFETCH(QString, document);
    const QRegularExpression link(QStringLiteral("\\]\\(([^)#]*)(?:#([^)]*))?\\)"));
    const QDir directory = QFileInfo(root + QLatin1Char('/') + document).dir();
    const QString text = WithoutCode(ReadFile(document));
    for (auto match = link.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch found = match.next();
        const QString target = found.captured(1);
        if (target.contains(QLatin1String("://")))
            continue;
        const QString path = target.isEmpty() ? document : directory.filePath(target);
        QVERIFY2(QFileInfo::exists(path) || target.isEmpty(), qPrintable(target));
        if (!found.captured(2).isEmpty()) {
            const QString name = target.isEmpty() ? document : QDir(root).relativeFilePath(path);
            QVERIFY2(Anchors(ReadFile(name)).contains(found.captured(2)),
                     qPrintable(found.captured(0)));
        }
    }
}

void TestDocs::ErrorTableListsExactlyTheCodesOfTheHeaders()
{
    QMap<int, QString> published =
        EnumOf(QStringLiteral("src/libs/kxupdater/include/kxupdater/errors.h"));
    QVERIFY(published.size() > 20);
    published.insert(EnumOf(QStringLiteral("src/libs/kxcommon/include/kxcommon/errors.h")));
    published.insert(EnumOf(QStringLiteral("src/libs/kxguard/include/kxguard/errors.h")));
    QVERIFY(published.size() > 80);

    QMap<int, QString> listed;
    const QRegularExpression row(QStringLiteral("^\\| (6[0-9]{5}) `(\\w+)` \\|"),
                                 QRegularExpression::MultilineOption);
    const QString text = ReadFile(QStringLiteral("docs/errors.md"));
    for (auto match = row.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch found = match.next();
        const int code = found.captured(1).toInt();
        QVERIFY2(!listed.contains(code), qPrintable(found.captured(1)));
        listed.insert(code, found.captured(2));
    }
    QCOMPARE(listed.keys(), published.keys());
    QCOMPARE(listed, published);
}

void TestDocs::TextsOfTheErrorTableStandInTheSources()
{
    QString sources;
    for (const char* library : {"kxcommon", "kxupdater", "kxguard"}) {
        QDirIterator files(root + QStringLiteral("/src/libs/%1/src").arg(QLatin1String(library)),
                           {QStringLiteral("*.cpp")}, QDir::Files);
        while (files.hasNext()) {
            QFile file(files.next());
            QVERIFY(file.open(QIODevice::ReadOnly));
            sources += QString::fromUtf8(file.readAll());
        }
    }
    // A long text stands in several lines.
    sources.remove(QRegularExpression(QStringLiteral("\"\\s*\\n\\s*\"")));
    // Every quoted text of the second column.
    const QRegularExpression row(QStringLiteral("^\\| 6[0-9]{5} `\\w+` \\| ([^|]*) \\|"),
                                 QRegularExpression::MultilineOption);
    const QRegularExpression quoted(QStringLiteral("\"([^\"]+)\""));
    const QString text = ReadFile(QStringLiteral("docs/errors.md"));
    int texts = 0;
    for (auto match = row.globalMatch(text); match.hasNext();) {
        const QString column = match.next().captured(1);
        for (auto inner = quoted.globalMatch(column); inner.hasNext(); ++texts) {
            const QString expected = inner.next().captured(0);
            QVERIFY2(sources.contains(expected), qPrintable(expected));
        }
    }
    QVERIFY(texts > 80);
}

void TestDocs::WorkedExampleDescribesItsTree()
{
    const QRegularExpression block(QStringLiteral("```xml\n(.*?)```"),
                                   QRegularExpression::DotMatchesEverythingOption);
    const QString xml = block.match(ReadFile(QStringLiteral("docs/manifest.md"))).captured(1);
    updater::Package package(nullptr, nullptr);
    package.SetName(QStringLiteral("demo-app"));
    package.SetPackageXML(xml);
    QCOMPARE(package.ExecutableName(), QStringLiteral("bin/demo-app"));

    kxtest::TreeBuilder tree;
    tree.File(QStringLiteral("bin/demo-app"), "demo-app 2.4.1", 0755)
        .File(QStringLiteral("lib/libcore.so.2"), "libcore 2.4")
        .Symlink(QStringLiteral("lib/libcore.so"), QStringLiteral("libcore.so.2"));
    const updater::FileList described = package.Files();
    const updater::FileList scanned = kxtest::ScanForManifest(tree.Root());
    QCOMPARE(described.size(), 3);
    QCOMPARE(scanned.size(), 3);
    for (const updater::File& file : described) {
        QVERIFY2(scanned.contains(file), qPrintable(file.Name()));
        QCOMPARE(file.MD5(), file.MD5().toLower());
    }
}

void TestDocs::TestsOfTheThreatTableExist()
{
    // "`DIRECTORY/tst_NAME` `Function`", and further functions of the same file behind it.
    const QRegularExpression named(
        QStringLiteral("`(common|updater|guard|tools|examples|campaign[^`]*)/(tst_\\w+)`"
                       "((?:\\s+`[A-Z]\\w+`)*)"));
    const QRegularExpression function(QStringLiteral("`(\\w+)`"));
    const QString text = ReadFile(QStringLiteral("docs/security.md"));
    int functions = 0;
    for (auto match = named.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch found = match.next();
        const QString name =
            QStringLiteral("tests/%1/%2.cpp").arg(found.captured(1), found.captured(2));
        const QString source = ReadFile(name);
        QVERIFY2(!source.isEmpty(), qPrintable(name));
        QVERIFY2(!found.captured(3).isEmpty(), qPrintable(name + QStringLiteral(": no function")));
        for (auto inner = function.globalMatch(found.captured(3)); inner.hasNext(); ++functions) {
            const QString test = inner.next().captured(1);
            QVERIFY2(source.contains(QStringLiteral("::%1()\n{").arg(test)),
                     qPrintable(name + QStringLiteral(": ") + test));
        }
    }
    QVERIFY(functions > 50);
    // Every row of the table has a test.
    const QRegularExpression row(QStringLiteral("^\\| .* \\|$"),
                                 QRegularExpression::MultilineOption);
    const QString table = text.section(QStringLiteral("## Attacks, and what stops them"), 1)
                              .section(QStringLiteral("\n## "), 0, 0);
    int rows = 0;
    for (auto match = row.globalMatch(table); match.hasNext(); ++rows) {
        const QString line = match.next().captured(0);
        QVERIFY2(rows == 0 || named.match(line.section(QLatin1Char('|'), 4, 4)).hasMatch(),
                 qPrintable(line));
    }
    QVERIFY(rows > 25);
}

void TestDocs::CodeOfTheThreatTableExists()
{
    const QRegularExpression named(QStringLiteral("`(kxcommon|kxupdater|kxguard)/(\\w+)`"));
    const QString text = ReadFile(QStringLiteral("docs/security.md"));
    int files = 0;
    for (auto match = named.globalMatch(text); match.hasNext(); ++files) {
        const QRegularExpressionMatch found = match.next();
        const QString name =
            QStringLiteral("src/libs/%1/src/%2.cpp").arg(found.captured(1), found.captured(2));
        QVERIFY2(QFile::exists(root + QLatin1Char('/') + name), qPrintable(name));
    }
    QVERIFY(files > 25);
}

QTEST_GUILESS_MAIN(TestDocs)
#include "tst_docs.moc"
