#include "packagexml.h"

#include "xmlguard.h"

#include <QDomDocument>

namespace guard {
namespace {

const QString nameAttribute = QStringLiteral("name");

QList<SignedRecord> RecordsOf(const QDomElement& build)
{
    const QString fileElement = QStringLiteral("file");
    QList<SignedRecord> records;
    for (QDomElement file = build.firstChildElement(fileElement); !file.isNull();
         file = file.nextSiblingElement(fileElement)) {
        SignedRecord record;
        record.name = file.attribute(nameAttribute);
        if (record.name.isEmpty())
            continue;
        while (record.name.startsWith(QLatin1Char('/')))
            record.name.remove(0, 1);
        record.md5 = file.attribute(QStringLiteral("md5"));
        record.sha256 = file.attribute(QStringLiteral("sha256"));
        record.size = file.attribute(QStringLiteral("size")).toULongLong(nullptr, 10);
        record.permissions = file.attribute(QStringLiteral("permissions"));
        record.symlink = file.attribute(QStringLiteral("symlink"));
        records.append(record);
    }
    return records;
}

// The first build of a package counts, and without an address of its files it is none.
QDomElement FindBuild(const QDomElement& root, const QString& package)
{
    const QString packageElement = QStringLiteral("package");
    for (QDomElement element = root.firstChildElement(packageElement); !element.isNull();
         element = element.nextSiblingElement(packageElement)) {
        if (element.attribute(nameAttribute) != package)
            continue;
        const QDomElement build = element.firstChildElement(QStringLiteral("build"));
        if (!build.isNull() && !build.attribute(QStringLiteral("DownloadURL")).isEmpty())
            return build;
    }
    return {};
}

} // namespace

bool ReadPackageXml(const QString& xml, const QString& package, PackageXml* result)
{
    *result = {};
    QDomDocument document;
    if (!updater::IsSafeXml(xml) || !document.setContent(xml))
        return false;
    const QDomElement root = document.documentElement();
    if (root.isNull() || root.tagName() != QLatin1String("packages"))
        return false;
    const QDomElement build = FindBuild(root, package);
    if (build.isNull())
        return true;
    result->hasBuild = true;
    result->build.identity = {package, build.attribute(QStringLiteral("version")),
                              build.attribute(QStringLiteral("platform"))};
    result->build.executable = build.attribute(QStringLiteral("PostExec"));
    result->build.records = RecordsOf(build);
    result->signature = build.attribute(QStringLiteral("signature"));
    result->trustedComment = build.attribute(QStringLiteral("trustedComment"));
    result->commentSignature = build.attribute(QStringLiteral("commentSignature"));
    return true;
}

} // namespace guard
