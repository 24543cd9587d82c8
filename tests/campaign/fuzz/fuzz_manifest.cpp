// index.xml, from the reply's bytes to the records, and the package XML that is made of it.

#include "fuzztarget.h"
#include "manifestoracle.h"
#include "xmlmutator.h"

#include <kxupdater/package.h>

namespace {

const QString demo = QStringLiteral("demo-app");

struct Reader
{
    explicit Reader(const QString& xml)
    {
        package.SetName(demo);
        package.SetPackageXML(xml);
    }

    updater::Package package{nullptr, nullptr};
};

QList<QStringList> RecordsOf(const updater::Package& package)
{
    QList<QStringList> records;
    for (const updater::File& file : package.Files()) {
        records.append({file.Name(), file.MD5(), QString::number(file.Size()),
                        file.PermissionsString(), file.SymlinkPath()});
    }
    return records;
}

void CheckRecords(const QList<QStringList>& read, const QList<QStringList>& expected)
{
    KX_FUZZ_REQUIRE(read.size() == expected.size());
    for (qsizetype i = 0; i < read.size(); ++i) {
        QStringList should = expected.at(i);
        quint64 size = 0;
        // Of other texts it is enough that they do no harm.
        should[2] =
            kxfuzz::IsPlainSize(should.at(2), &size) ? QString::number(size) : read.at(i).at(2);
        KX_FUZZ_REQUIRE(read.at(i) == should);
    }
}

// A short reply must not fill the memory.
void CheckSize(const updater::Package& package, const QString& xml)
{
    qsizetype held = package.DownloadURL().size() + package.ExecutableName().size();
    for (const QStringList& record : RecordsOf(package))
        held +=
            record.at(0).size() + record.at(1).size() + record.at(3).size() + record.at(4).size();
    KX_FUZZ_REQUIRE(held <= xml.size());
}

void CheckReadBack(const updater::Package& package, const QString& packageXml)
{
    Reader again(packageXml);
    KX_FUZZ_REQUIRE(RecordsOf(again.package) == RecordsOf(package));
    KX_FUZZ_REQUIRE(again.package.DownloadURL() == package.DownloadURL());
    KX_FUZZ_REQUIRE(again.package.ExecutableName() == package.ExecutableName());
    // What kxupdate keeps in a file between a download and its install.
    KX_FUZZ_REQUIRE(QString::fromUtf8(packageXml.toUtf8()) == packageXml);
}

} // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed)
{
    static const std::vector<std::string> fragments = {
        "<file name=\"a/b\" md5=\"0cc1\" size=\"7\" permissions=\"-rwxr-xr-x\" symlink=\"\"/>",
        "<file name=\"/l\" symlink=\"../t\"/>",
        "<package name=\"demo-app\">",
        "</package>",
        "<build DownloadURL=\"u\" PostExec=\"e\">",
        "</build>",
        "<x a=\"1\">",
        "</x>",
        "<!-- c -->",
        "<![CDATA[ <file name=\"c\"/> ]]>",
        "<?p i?>",
        "<!DOCTYPE packages [<!ATTLIST file name CDATA \"d\">]>",
        "<!DOCTYPE packages [<!ENTITY e \"x\">]>",
    };
    return kxfuzz::MutateXml(data, size, maxSize, seed, fragments);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString xml = kxfuzz::Text(data, size);
    Reader reader(xml);
    const QString packageXml = reader.package.GetPackageXML();
    const kxfuzz::ExpectedManifest expected = kxfuzz::ExpectManifest(xml, demo);

    CheckSize(reader.package, xml);
    CheckRecords(RecordsOf(reader.package), expected.records);
    KX_FUZZ_REQUIRE(reader.package.DownloadURL() == expected.downloadUrl);
    KX_FUZZ_REQUIRE(reader.package.ExecutableName() == expected.executable);
    if (expected.hasBuild)
        CheckReadBack(reader.package, packageXml);
    else
        KX_FUZZ_REQUIRE(packageXml == xml);
    return 0;
}
