// The configuration of kxupdate, into which the version goes that the server announced: it must
// become that one value, and change nothing else. An input is the version, a line, and then the
// file.

#include "fuzztarget.h"

#include "files/configfile.h"

#include <QFile>
#include <QMap>
#include <QTemporaryDir>

#include <algorithm>

namespace {

const QString& Path()
{
    static const QTemporaryDir directory;
    static const QString path = directory.filePath(QStringLiteral("kxupdate.conf"));
    return path;
}

QByteArray Read()
{
    QFile file(Path());
    KX_FUZZ_REQUIRE(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

void Write(const QByteArray& bytes)
{
    QFile file(Path());
    KX_FUZZ_REQUIRE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

QMap<QString, QString> ValuesOf(const ConfigFile& config)
{
    QMap<QString, QString> values;
    for (const QString& key : ConfigFile::Keys()) {
        const QByteArray name = key.toLatin1();
        if (config.Has(name.constData()))
            values.insert(key, config.Value(name.constData()));
    }
    return values;
}

// A version as publishers have them, which every file that can be read takes.
bool IsPlain(const QString& version)
{
    const QString letters = QStringLiteral("0123456789.-abcdefghijklmnopqrstuvwxyz");
    return !version.isEmpty() && std::all_of(version.begin(), version.end(),
                                             [&](QChar c) { return letters.contains(c); });
}

// Letter for letter what stands behind a key, and one line of text.
void CheckValues(const QMap<QString, QString>& values, const QByteArray& bytes)
{
    for (const QString& value : values) {
        KX_FUZZ_REQUIRE(!value.isEmpty() && bytes.contains(value.toUtf8()));
        KX_FUZZ_REQUIRE(!value.startsWith(QLatin1Char(' ')) && !value.endsWith(QLatin1Char(' ')));
        for (const QChar c : value)
            KX_FUZZ_REQUIRE(c >= QLatin1Char(' '));
    }
}

void CheckReplaced(const QByteArray& before, const QByteArray& after, bool hadVersion)
{
    const QList<QByteArray> old = before.split('\n');
    const QList<QByteArray> now = after.split('\n');
    if (!hadVersion) {
        const qsizetype ended = before.isEmpty() || before.endsWith('\n') ? 0 : 1;
        KX_FUZZ_REQUIRE(after.startsWith(before) && now.size() == old.size() + 1 + ended);
        return;
    }
    KX_FUZZ_REQUIRE(now.size() == old.size());
    int changed = 0;
    for (qsizetype i = 0; i < old.size(); ++i)
        changed += old.at(i) == now.at(i) ? 0 : 1;
    KX_FUZZ_REQUIRE(changed <= 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input = kxfuzz::Bytes(data, size);
    const qsizetype end = input.indexOf('\n');
    const QString version = QString::fromUtf8(input.left(end));
    const QByteArray before = end < 0 ? QByteArray() : input.mid(end + 1);
    Write(before);

    ConfigFile config;
    const bool isRead = config.Load(Path()).isEmpty();
    QMap<QString, QString> values;
    if (isRead)
        CheckValues(values = ValuesOf(config), before);

    const bool isSet = ConfigFile::SetVersion(Path(), version).isEmpty();
    const QByteArray after = Read();
    if (!isSet) {
        KX_FUZZ_REQUIRE(!isRead || !IsPlain(version));
        KX_FUZZ_REQUIRE(after == before);
        return 0;
    }
    KX_FUZZ_REQUIRE(isRead);
    // No version and none in the file is the same, and leaves the file as it is.
    if (version.isEmpty()) {
        KX_FUZZ_REQUIRE(after == before && !values.contains(QStringLiteral("version")));
        return 0;
    }
    CheckReplaced(before, after, values.contains(QStringLiteral("version")));
    ConfigFile again;
    KX_FUZZ_REQUIRE(again.Load(Path()).isEmpty());
    values.insert(QStringLiteral("version"), version);
    KX_FUZZ_REQUIRE(ValuesOf(again) == values);
    return 0;
}
