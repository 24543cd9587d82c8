#pragma once

#include <QList>
#include <QString>
#include <QStringList>

namespace kxfuzz {

/** What docs/manifest.md says that a client reads. */
struct ExpectedManifest
{
    bool isManifest = false; //!< XML with the right root
    bool hasBuild = false;   //!< and a usable build of the package
    QString downloadUrl;
    QString executable;
    /** Of each record name, md5, size, permissions and target; the size as the text that stands
     *  there. */
    QList<QStringList> records;
};

/**
 * True for XML that a client reads at all: no more than 256 levels deep, without declarations of
 * entities and attributes, and a document tree. A reader of one pass, as the oracles are, takes a
 * document type where it stands: inside the root, behind it, and more than once.
 */
bool IsReadable(const QString& xml);

/** Reads `xml` in one pass, with nothing of the library's reader, which goes by a document tree. */
ExpectedManifest ExpectManifest(const QString& xml, const QString& package);

/** True for decimal digits that a record's size can hold; `value`, may be null, gets them. */
bool IsPlainSize(const QString& text, quint64* value);

} // namespace kxfuzz
