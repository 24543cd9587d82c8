#include "xmlguard.h"

#include <QXmlStreamReader>

namespace updater {

bool IsSafeXml(const QString& xml)
{
    QXmlStreamReader reader(xml);
    reader.setNamespaceProcessing(false); // as the DOM reads it
    int depth = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::StartElement:
            if (++depth > maxXmlDepth)
                return false;
            break;
        case QXmlStreamReader::EndElement:
            --depth;
            break;
        case QXmlStreamReader::DTD:
            // The parsed list misses parameter entities, the text does not. A declared attribute
            // may have a default value, which stands once and is read with every element.
            if (!reader.entityDeclarations().isEmpty() ||
                reader.text().contains(QLatin1String("<!ENTITY")) ||
                reader.text().contains(QLatin1String("<!ATTLIST"))) {
                return false;
            }
            break;
        default:
            break;
        }
    }
    return !reader.hasError();
}

} // namespace updater
