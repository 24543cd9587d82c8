#include "fakeservices.h"
#include "logcapture.h"
#include "manifest.h"
#include "signaltrace.h"
#include "wiringguard.h"

#include <kxupdater/package.h>

#include <QDomDocument>
#include <QNetworkAccessManager>
#include <QTest>

using updater::File;
using updater::FileList;
using updater::Package;

namespace {

const char demo[] = "demo-app";

// A manifest around the content of the root element.
QString Packages(const QString& content)
{
    return "<packages>" + content + "</packages>";
}

QString DemoPackage(const QString& content)
{
    return "<package name=\"demo-app\">" + content + "</package>";
}

// A manifest of one usable build with these "file" elements.
QString WithFiles(const QString& elements)
{
    return Packages(
        DemoPackage("<build DownloadURL=\"http://h/d\" PostExec=\"run\">" + elements + "</build>"));
}

// `content` inside the build, so that the innermost element stands `depth` levels deep.
QString Nested(int depth)
{
    const int above = 3; // packages, package, build
    return WithFiles("<file name=\"a\"/>" + QString("<x>").repeated(depth - above) +
                     QString("</x>").repeated(depth - above));
}

QStringList TextOf(const FileList& files)
{
    QStringList lines;
    for (const File& file : files) {
        lines << QStringList{file.Name(), file.MD5(), QString::number(file.Size()),
                             file.PermissionsString(), file.SymlinkPath()}
                     .join('|');
    }
    return lines;
}

// A package query that reads one text.
struct Reader
{
    Reader()
    {
        package.SetName(demo);
        log.Clear();
    }

    QStringList Read(const QString& xml)
    {
        log.Clear();
        package.SetPackageXML(xml);
        return log.Lines("updater.package");
    }

    QNetworkAccessManager manager;
    kxtest::LogCapture log;
    Package package{&manager, nullptr};
    kxtest::SignalTrace trace{&package};
};

// What a successful read writes to the log after its first lines.
QStringList SuccessLines(int count, const QString& url = "http://h/d", const QString& run = "run")
{
    return {QStringLiteral("7 Found %1 files in build.").arg(count),
            QStringLiteral("7 Download URL: '%1'.").arg(url),
            QStringLiteral("7 Executable Name: '%1'.").arg(run), "6 Parsing successed!"};
}

} // namespace

/** The format of manifests and of the package XML. */
class TestManifest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        kxtest::FailOnWiringWarnings();
        FakeServices().Reset();
    }

    void FileElementsBecomeRecords_data();
    void FileElementsBecomeRecords();
    void FilesKeepTheirOrderAndTheirDuplicates();
    void BuildYieldsUrlAndExecutable_data();
    void BuildYieldsUrlAndExecutable();
    void ManifestsWithoutUsableBuildAreAccepted_data();
    void ManifestsWithoutUsableBuildAreAccepted();
    void OtherTextsAreRejected_data();
    void OtherTextsAreRejected();
    void RejectedTextChangesNothingButTheStoredText();
    void TextWithoutBuildKeepsTheEarlierFiles();
    void FirstUsablePackageOfTheNameIsTaken_data();
    void FirstUsablePackageOfTheNameIsTaken();
    void OnlyTheFirstBuildOfAPackageIsRead();
    void PackageNameIsComparedLetterByLetter_data();
    void PackageNameIsComparedLetterByLetter();
    void DeepestNestingIsRead();
    void DoctypeWithoutEntitiesIsRead();
    void PackageXmlIsReducedToTheBuild();
    void PackageXmlKeepsTheBuildAsReceived();
    void PackageXmlReadsBackToTheSameRecords_data();
    void PackageXmlReadsBackToTheSameRecords();
    void SetPackageXmlStoresTheReducedText();
    void ReadingEmitsNothingAndAsksNothing();
    void LargeManifestIsRead();

private:
    using FakeServices = kxtest::FakeServices;
};

void TestManifest::FileElementsBecomeRecords_data()
{
    QTest::addColumn<QString>("element");
    QTest::addColumn<QString>("record");

    QTest::newRow("all attributes")
        << "<file name=\"bin/app\" md5=\"9e10\" size=\"1843200\" permissions=\"-rwxr-xr-x\""
           " symlink=\"\"/>"
        << "bin/app|9e10|1843200|-rwxr-xr-x|";
    QTest::newRow("name alone") << "<file name=\"a\"/>"
                                << "a||0||";
    QTest::newRow("link") << "<file name=\"l\" md5=\"m\" size=\"8\" permissions=\"lrwxrwxrwx\""
                             " symlink=\"../x\"/>"
                          << "l|m|8|lrwxrwxrwx|../x";
    QTest::newRow("leading slash") << "<file name=\"/bin/app\"/>"
                                   << "bin/app||0||";
    QTest::newRow("leading slashes only go") << "<file name=\"//bin//tool\"/>"
                                             << "bin//tool||0||";
    QTest::newRow("slash alone") << "<file name=\"/\"/>"
                                 << "||0||";
    QTest::newRow("slashes alone") << "<file name=\"///\" size=\"3\"/>"
                                   << "||3||";
    QTest::newRow("dangerous names stay as they are") << "<file name=\"../../etc/passwd\"/>"
                                                      << "../../etc/passwd||0||";
    QTest::newRow("drive letters stay") << "<file name=\"C:\\x\"/>"
                                        << "C:\\x||0||";
    QTest::newRow("size with letters") << "<file name=\"a\" size=\"12kb\"/>"
                                       << "a||0||";
    QTest::newRow("size empty") << "<file name=\"a\" size=\"\"/>"
                                << "a||0||";
    QTest::newRow("size negative") << "<file name=\"a\" size=\"-1\"/>"
                                   << "a||0||";
    QTest::newRow("size hexadecimal") << "<file name=\"a\" size=\"0x10\"/>"
                                      << "a||0||";
    QTest::newRow("size fraction") << "<file name=\"a\" size=\"1.5\"/>"
                                   << "a||0||";
    QTest::newRow("size octal looks decimal") << "<file name=\"a\" size=\"010\"/>"
                                              << "a||10||";
    QTest::newRow("size beyond 32 bits") << "<file name=\"a\" size=\"5000000000\"/>"
                                         << "a||5000000000||";
    QTest::newRow("largest size") << "<file name=\"a\" size=\"18446744073709551615\"/>"
                                  << "a||18446744073709551615||";
    QTest::newRow("size too large") << "<file name=\"a\" size=\"18446744073709551616\"/>"
                                    << "a||0||";
    QTest::newRow("size with separators") << "<file name=\"a\" size=\"1,000\"/>"
                                          << "a||0||";
    QTest::newRow("digest as it stands") << "<file name=\"a\" md5=\" ABCdef\"/>"
                                         << "a| ABCdef|0||";
    QTest::newRow("permissions as they stand") << "<file name=\"a\" permissions=\"0755\"/>"
                                               << "a||0|0755|";
    QTest::newRow("blanks in names stay") << "<file name=\" a b \"/>"
                                          << " a b ||0||";
    QTest::newRow("escapes") << "<file name=\"a&lt;&amp;&quot;&#x31;\"/>"
                             << "a<&\"1||0||";
    QTest::newRow("not ASCII") << QString::fromUtf8("<file name=\"größe/文件🎉\"/>")
                               << QString::fromUtf8("größe/文件🎉||0||");
    QTest::newRow("other attributes are ignored")
        << "<file name=\"a\" sha256=\"x\" Size=\"7\" MD5=\"y\"/>"
        << "a||0||";
    QTest::newRow("children are ignored") << "<file name=\"a\"><file name=\"b\"/>text</file>"
                                          << "a||0||";
}

void TestManifest::FileElementsBecomeRecords()
{
    QFETCH(QString, element);
    QFETCH(QString, record);
    Reader reader;
    QCOMPARE(reader.Read(WithFiles(element)), SuccessLines(1));
    QCOMPARE(TextOf(reader.package.Files()), QStringList{record});
}

void TestManifest::FilesKeepTheirOrderAndTheirDuplicates()
{
    Reader reader;
    const QStringList lines =
        reader.Read(WithFiles("<file name=\"z\"/><dir name=\"q\"><file name=\"inner\"/></dir>"
                              "<!-- <file name=\"commented\"/> --><file name=\"\" size=\"5\"/>"
                              "<File name=\"case\"/><file name=\"a\"/><file size=\"9\"/>"
                              "<file name=\"z\"/>"));
    QCOMPARE(lines,
             QStringList({"3 Found file with empty name!", "3 Found file with empty name!"}) +
                 SuccessLines(3));
    QCOMPARE(TextOf(reader.package.Files()), (QStringList{"z||0||", "a||0||", "z||0||"}));
}

void TestManifest::BuildYieldsUrlAndExecutable_data()
{
    QTest::addColumn<QString>("attributes");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("executable");

    QTest::newRow("both") << "DownloadURL=\"https://h/a b?c=1&amp;d=2\" PostExec=\"Demo App.exe\""
                          << "https://h/a b?c=1&d=2"
                          << "Demo App.exe";
    QTest::newRow("no executable") << "DownloadURL=\"x\""
                                   << "x"
                                   << "";
    QTest::newRow("other order and more")
        << "a=\"1\" PostExec=\"e\" DownloadURL=\"u\" downloadurl=\"v\""
        << "u"
        << "e";
    QTest::newRow("blank url") << "DownloadURL=\" \""
                               << " "
                               << "";
}

void TestManifest::BuildYieldsUrlAndExecutable()
{
    QFETCH(QString, attributes);
    QFETCH(QString, url);
    QFETCH(QString, executable);
    Reader reader;
    QCOMPARE(reader.Read(Packages(DemoPackage("<build " + attributes + "/>"))),
             SuccessLines(0, url, executable));
    QCOMPARE(reader.package.DownloadURL(), url);
    QCOMPARE(reader.package.ExecutableName(), executable);
    QCOMPARE(TextOf(reader.package.Files()), QStringList{});
}

void TestManifest::ManifestsWithoutUsableBuildAreAccepted_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QStringList>("lines");

    const QString none = "4 No build found!";
    QTest::newRow("no package") << "<packages/>" << QStringList{none};
    QTest::newRow("only other packages")
        << Packages("<package name=\"one\"/><package name=\"two\"><build DownloadURL=\"u\"/>"
                    "</package>")
        << QStringList{"7 Found unknown package 'one'.", "7 Found unknown package 'two'.", none};
    QTest::newRow("package without a name")
        << Packages("<package><build DownloadURL=\"u\"/></package>")
        << QStringList{"7 Found unknown package ''.", none};
    QTest::newRow("package without build")
        << Packages(DemoPackage("<Build DownloadURL=\"u\"/>"))
        << QStringList{"4 Build element not found in package!", none};
    QTest::newRow("build without url")
        << Packages(DemoPackage("<build><file name=\"a\"/></build>"))
        << QStringList{"3 Failed to get download URL for build!", none};
    QTest::newRow("build with empty url")
        << Packages(DemoPackage("<build DownloadURL=\"\" PostExec=\"e\"/>"))
        << QStringList{"3 Failed to get download URL for build!", none};
    QTest::newRow("package not directly below the root")
        << Packages("<group>" + DemoPackage("<build DownloadURL=\"u\"/>") + "</group>")
        << QStringList{none};
    QTest::newRow("build not directly below the package")
        << Packages(DemoPackage("<builds><build DownloadURL=\"u\"/></builds>"))
        << QStringList{"4 Build element not found in package!", none};
    QTest::newRow("package in other case")
        << Packages("<Package name=\"demo-app\"><build DownloadURL=\"u\"/></Package>")
        << QStringList{none};
}

void TestManifest::ManifestsWithoutUsableBuildAreAccepted()
{
    QFETCH(QString, xml);
    QFETCH(QStringList, lines);
    Reader reader;
    QCOMPARE(reader.Read(xml), lines);
    QCOMPARE(TextOf(reader.package.Files()), QStringList{});
    QCOMPARE(reader.package.DownloadURL(), QString());
    QCOMPARE(reader.package.ExecutableName(), QString());
}

void TestManifest::OtherTextsAreRejected_data()
{
    QTest::addColumn<QString>("xml");
    QTest::addColumn<QString>("line");

    const QString content = "3 Failed to parse reply - can't set XML document content!";
    const QString root = "3 Failed to parse reply - can't get root element!";
    const QString good = WithFiles("<file name=\"a\"/>");
    QTest::newRow("empty") << "" << content;
    QTest::newRow("blank") << " \n" << content;
    QTest::newRow("no XML") << "hello" << content;
    QTest::newRow("cut short") << good.left(good.size() - 5) << content;
    QTest::newRow("text behind the root") << good + "x" << content;
    QTest::newRow("second root") << good + good << content;
    QTest::newRow("attribute twice") << WithFiles("<file name=\"a\" name=\"b\"/>") << content;
    QTest::newRow("unclosed web page") << "<html><body><p>login<br></body></html>" << content;
    QTest::newRow("null character") << good + QChar(0) << content;
    QTest::newRow("other case") << "<Packages/>" << root;
    QTest::newRow("other root") << "<package name=\"demo-app\"/>" << root;
    QTest::newRow("version reply") << "<version>2.0</version>" << root;
    QTest::newRow("closed web page") << "<html><body><p>login</p></body></html>" << root;
    QTest::newRow("257 levels") << Nested(257) << content;
    QTest::newRow("257 levels outside the package")
        << Packages(QString("<x>").repeated(256) + QString("</x>").repeated(256)) << content;
    QTest::newRow("100,000 levels") << Nested(100'000) << content;
    QTest::newRow("undeclared entity") << WithFiles("<file name=\"&e;\"/>") << content;
    const struct
    {
        const char* name;
        const char* subset;
    } subsets[] = {
        {"entity", "<!ENTITY e \"x\">"},
        {"unused external entity", "<!ENTITY e SYSTEM \"file:///etc/passwd\">"},
        {"public entity", "<!ENTITY e PUBLIC \"p\" \"http://h/x\">"},
        {"parameter entity", "<!ENTITY % p \"x\">"},
        {"external parameter entity", "<!ENTITY % p SYSTEM \"http://h/x\"> %p;"},
        {"entity bomb", "<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">"
                        "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;\">"},
        {"attribute with a default value", "<!ATTLIST file md5 CDATA \"x\">"},
        {"attribute without one", "<!ELEMENT file EMPTY><!ATTLIST file md5 CDATA #IMPLIED>"},
    };
    for (const auto& subset : subsets) {
        QTest::addRow("declared %s", subset.name)
            << QStringLiteral("<!DOCTYPE packages [%1]>").arg(QString(subset.subset)) + good
            << content;
    }
    QTest::newRow("document type inside the root")
        << Packages("<!DOCTYPE packages>" + DemoPackage("<build DownloadURL=\"u\"/>")) << content;
    // Two megabytes of reply that would be a gigabyte of records.
    QTest::newRow("20,000 elements with a long default value")
        << "<!DOCTYPE packages [<!ATTLIST file md5 CDATA \"" + QString(25'000, 'e') + "\">]>" +
               WithFiles(QString("<file name=\"a\"/>").repeated(20'000))
        << content;
    QTest::newRow("20,000 references to one entity")
        << "<!DOCTYPE packages [<!ENTITY e \"" + QString(4000, 'e') + "\">]>" +
               WithFiles("<file name=\"a\">" + QString("&e;").repeated(20'000) + "</file>")
        << content;
}

void TestManifest::OtherTextsAreRejected()
{
    QFETCH(QString, xml);
    QFETCH(QString, line);
    Reader reader;
    QCOMPARE(reader.Read(xml), QStringList{line});
    QCOMPARE(TextOf(reader.package.Files()), QStringList{});
    QCOMPARE(reader.package.GetPackageXML(), xml);
}

void TestManifest::RejectedTextChangesNothingButTheStoredText()
{
    Reader reader;
    reader.Read(WithFiles("<file name=\"a\"/>"));
    reader.Read("<packages>");
    QCOMPARE(TextOf(reader.package.Files()), QStringList{"a||0||"});
    QCOMPARE(reader.package.DownloadURL(), QString("http://h/d"));
    QCOMPARE(reader.package.ExecutableName(), QString("run"));
    QCOMPARE(reader.package.GetPackageXML(), QString("<packages>"));
}

void TestManifest::TextWithoutBuildKeepsTheEarlierFiles()
{
    Reader reader;
    reader.Read(WithFiles("<file name=\"a\"/>"));
    QCOMPARE(reader.Read("<packages/>"), QStringList{"4 No build found!"});
    QCOMPARE(TextOf(reader.package.Files()), QStringList{"a||0||"});
    QCOMPARE(reader.package.DownloadURL(), QString("http://h/d"));
    QCOMPARE(reader.package.ExecutableName(), QString("run"));
    QCOMPARE(reader.package.GetPackageXML(), QString("<packages/>"));
}

void TestManifest::FirstUsablePackageOfTheNameIsTaken_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QStringList>("lines");

    QTest::newRow("nothing before") << "" << QStringList{};
    QTest::newRow("other package before")
        << "<package name=\"x\"/>" << QStringList{"7 Found unknown package 'x'."};
    QTest::newRow("one without url before")
        << DemoPackage("<build DownloadURL=\"\"><file name=\"no\"/></build>")
        << QStringList{"3 Failed to get download URL for build!"};
    QTest::newRow("one without build before")
        << DemoPackage("") << QStringList{"4 Build element not found in package!"};
}

void TestManifest::FirstUsablePackageOfTheNameIsTaken()
{
    QFETCH(QString, before);
    QFETCH(QStringList, lines);
    Reader reader;
    const QString xml = Packages(
        before +
        DemoPackage("<build DownloadURL=\"u1\" PostExec=\"e1\"><file name=\"one\"/></build>") +
        DemoPackage("<build DownloadURL=\"u2\" PostExec=\"e2\"><file name=\"two\"/></build>") +
        "<package name=\"later\"/>");
    QCOMPARE(reader.Read(xml), lines + SuccessLines(1, "u1", "e1"));
    QCOMPARE(TextOf(reader.package.Files()), QStringList{"one||0||"});
}

void TestManifest::OnlyTheFirstBuildOfAPackageIsRead()
{
    Reader reader;
    QCOMPARE(reader.Read(Packages(DemoPackage("<note/><build DownloadURL=\"u1\"/>"
                                              "<build DownloadURL=\"u2\"/>"))),
             SuccessLines(0, "u1", ""));
    QCOMPARE(reader.Read(Packages(DemoPackage("<build/><build DownloadURL=\"u2\"/>"))),
             (QStringList{"3 Failed to get download URL for build!", "4 No build found!"}));
}

void TestManifest::PackageNameIsComparedLetterByLetter_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("found");

    QTest::newRow("same") << "demo-app" << true;
    QTest::newRow("other case") << "Demo-App" << false;
    QTest::newRow("longer") << "demo-app2" << false;
    QTest::newRow("shorter") << "demo" << false;
    QTest::newRow("blank behind") << "demo-app " << false;
    QTest::newRow("empty") << "" << false;
}

void TestManifest::PackageNameIsComparedLetterByLetter()
{
    QFETCH(QString, name);
    QFETCH(bool, found);
    Reader reader;
    reader.package.SetName(name);
    const QStringList lines = reader.Read(WithFiles(""));
    if (found)
        QCOMPARE(lines, SuccessLines(0));
    else
        QCOMPARE(lines, (QStringList{"7 Found unknown package 'demo-app'.", "4 No build found!"}));
}

void TestManifest::DeepestNestingIsRead()
{
    Reader reader;
    QCOMPARE(reader.Read(Nested(256)), SuccessLines(1));
}

void TestManifest::DoctypeWithoutEntitiesIsRead()
{
    Reader reader;
    QCOMPARE(reader.Read("<!DOCTYPE packages>" + WithFiles("")), SuccessLines(0));
    QCOMPARE(reader.Read("<?xml version=\"1.0\"?><!-- <!ENTITY e \"x\"> --><?pi <!ENTITY?>" +
                         WithFiles("<![CDATA[<!DOCTYPE x [<!ENTITY e \"x\">]>]]>")),
             SuccessLines(0));
}

void TestManifest::PackageXmlIsReducedToTheBuild()
{
    Reader reader;
    QCOMPARE(reader.package.GetPackageXML(), QString());
    reader.Read(Packages("<package name=\"x\"/>" +
                         DemoPackage("<note/><build DownloadURL=\"u\"><file name=\"a\"/></build>"
                                     "<build DownloadURL=\"v\"/>")));
    QCOMPARE(reader.package.GetPackageXML(), QString("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                                                     "<packages>\n"
                                                     " <package name=\"demo-app\">\n"
                                                     "  <build DownloadURL=\"u\">\n"
                                                     "   <file name=\"a\"/>\n"
                                                     "  </build>\n"
                                                     " </package>\n"
                                                     "</packages>\n"));
}

void TestManifest::PackageXmlKeepsTheBuildAsReceived()
{
    Reader reader;
    reader.Read(Packages(DemoPackage("<build DownloadURL=\"u\" extra=\"1\"><other><file"
                                     " name=\"q\"/></other><file name=\"//bin/app\"/></build>")));
    QDomDocument document;
    QVERIFY(document.setContent(reader.package.GetPackageXML()));
    const QDomElement build =
        document.documentElement().firstChildElement("package").firstChildElement("build");
    QCOMPARE(build.attribute("DownloadURL"), QString("u"));
    QCOMPARE(build.attribute("extra"), QString("1"));
    QCOMPARE(build.firstChildElement().tagName(), QString("other"));
    QCOMPARE(build.firstChildElement("other").firstChildElement("file").attribute("name"),
             QString("q"));
    QCOMPARE(build.firstChildElement("file").attribute("name"), QString("//bin/app"));
    QCOMPARE(TextOf(reader.package.Files()), QStringList{"bin/app||0||"});
}

void TestManifest::PackageXmlReadsBackToTheSameRecords_data()
{
    QTest::addColumn<QString>("elements");

    QTest::newRow("none") << "";
    QTest::newRow("leading slashes") << "<file name=\"//a\"/><file name=\"/\"/>";
    QTest::newRow("escapes") << "<file name=\"a&lt;&gt;&amp;&quot;&apos;b\" symlink=\"&amp;lt;\"/>";
    QTest::newRow("white space in values") << "<file name=\"a&#9;&#10;&#13;b\"/>";
    QTest::newRow("not ASCII") << QString::fromUtf8("<file name=\"größe/文件🎉\"/>");
    QTest::newRow("everything") << kxtest::FileElements(
        {File("bin/a", "9E10", 7, "-rwxr-xr-x", ""), File("l", "m", 3, "lrwxrwxrwx", "a b")});
}

void TestManifest::PackageXmlReadsBackToTheSameRecords()
{
    QFETCH(QString, elements);
    Reader reader;
    reader.Read(WithFiles(elements));
    const QStringList records = TextOf(reader.package.Files());
    const QString xml = reader.package.GetPackageXML();

    Reader again;
    again.Read(xml);
    QCOMPARE(TextOf(again.package.Files()), records);
    QCOMPARE(again.package.DownloadURL(), QString("http://h/d"));
    QCOMPARE(again.package.ExecutableName(), QString("run"));
}

void TestManifest::SetPackageXmlStoresTheReducedText()
{
    Reader reader;
    const QString xml =
        Packages("<package name=\"x\"/>" + DemoPackage("<build DownloadURL=\"u\"/>"));
    reader.Read(xml);
    QVERIFY(reader.package.GetPackageXML() != xml);
    QVERIFY(!reader.package.GetPackageXML().contains("\"x\""));
}

void TestManifest::ReadingEmitsNothingAndAsksNothing()
{
    Reader reader;
    FakeServices::calls.clear();
    reader.Read(WithFiles("<file name=\"a\"/>"));
    reader.Read("broken");
    QCOMPARE(reader.trace.Lines(), QStringList{});
    QCOMPARE(FakeServices::calls, QStringList{});
}

void TestManifest::LargeManifestIsRead()
{
    constexpr int count = 20'000;
    FileList files;
    for (int i = 0; i < count; ++i)
        files << File(QStringLiteral("dir%1/file%2").arg(i % 100).arg(i), "abc", i, "", "");
    Reader reader;
    QCOMPARE(reader.Read(kxtest::ManifestFor(demo, "http://h/d", "run", files)),
             SuccessLines(count));
    QCOMPARE(reader.package.Files().size(), count);
    QCOMPARE(reader.package.Files().last().Name(), files.last().Name());
}

QTEST_GUILESS_MAIN(TestManifest)
#include "tst_manifest.moc"
