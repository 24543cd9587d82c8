// version.xml: what is taken for the version, and what the query does with it.

#include "fakeservices.h"
#include "fuzztarget.h"
#include "manifestoracle.h"
#include "xmlmutator.h"

#include <kxcommon/version.h>
#include <kxupdater/version.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QXmlStreamReader>

namespace {

using kxtest::FakeServices;

const QString installed = QStringLiteral("2.0");

// The text of the root, read in one pass; null when the reply is none.
QString ExpectVersion(const QString& xml)
{
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false);
    QString text(QLatin1String(""));
    int depth = 0;
    bool isReply = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && ++depth == 1)
            isReply = reader.qualifiedName() == QLatin1String("version");
        if (reader.isEndElement())
            --depth;
        // A tree drops a piece that is nothing but white space, of Unicode's kinds too.
        if (depth > 0 && reader.isCharacters() &&
            (reader.isCDATA() || !reader.text().trimmed().isEmpty()))
            text += reader.text();
    }
    return isReply && kxfuzz::IsReadable(xml) ? text : QString();
}

QNetworkAccessManager* Manager()
{
    static QNetworkAccessManager manager;
    return &manager;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // For the timers of retries, which never fire: nothing runs the loop.
    static QCoreApplication app(*argc, *argv);
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed)
{
    static const std::vector<std::string> fragments = {
        "<version>",
        "</version>",
        "<version a=\"1\"/>",
        "<x/>",
        "<!-- c -->",
        "<?p i?>",
        "<![CDATA[ 9.9 ]]>",
        "2.0.1-rc1",
        "<!DOCTYPE version [<!ENTITY e \"x\">]>",
    };
    return kxfuzz::MutateXml(data, size, maxSize, seed, fragments);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString reply = kxfuzz::Text(data, size);
    const QString expected = ExpectVersion(reply);

    FakeServices::Reset();
    updater::Version version(Manager(), nullptr);
    int ready = 0;
    int failed = 0;
    QObject::connect(&version, &updater::Version::ready, [&] { ++ready; });
    QObject::connect(&version, &updater::Version::failed, [&] { ++failed; });
    version.SetURL(QStringLiteral("http://h/packages"));
    version.SetCurrentVersion(installed);
    KX_FUZZ_REQUIRE(version.Get());

    kxtest::FakeRequest* request = FakeServices::requests.first();
    request->Finish(reply);
    if (expected.isNull()) {
        KX_FUZZ_REQUIRE(ready == 0 && version.VersionString().isEmpty());
    } else {
        KX_FUZZ_REQUIRE(version.VersionString() == expected);
        const bool isEarlier = common::Version(installed) > common::Version(expected);
        KX_FUZZ_REQUIRE(request->IsRunning() == isEarlier);
        KX_FUZZ_REQUIRE(request->Url().hasQuery() == isEarlier);
        KX_FUZZ_REQUIRE(ready == (isEarlier ? 0 : 1));
        if (isEarlier)
            request->Finish(reply);
        KX_FUZZ_REQUIRE(ready == 1);
    }
    KX_FUZZ_REQUIRE(failed == 0);
    return 0;
}
