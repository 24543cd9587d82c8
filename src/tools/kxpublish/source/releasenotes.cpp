#include "releasenotes.h"

#include "platform.h"

#include <QStringDecoder>

namespace publish {

static constexpr qint64 maxNotes = 1024 * 1024;

QString ReadNotes(const QString& path, QByteArray& text)
{
    QFile file;
    int mode = 0;
    QString error;
    if (!OpenRegularFile(file, path, mode, error))
        return QStringLiteral("cannot be read: ") + error;
    text = file.read(maxNotes + 1);
    if (file.error() != QFileDevice::NoError)
        return QStringLiteral("cannot be read: ") + file.errorString();
    if (text.size() > maxNotes)
        return QStringLiteral("is longer than %1 bytes").arg(maxNotes);
    if (text.startsWith("\xef\xbb\xbf"))
        text.remove(0, 3);
    if (text.trimmed().isEmpty())
        return QStringLiteral("is empty");
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString decoded = decoder(text);
    if (decoder.hasError())
        return QStringLiteral("is not UTF-8");
    qsizetype line = 1;
    for (qsizetype i = 0; i < decoded.size(); ++i) {
        const QChar c = decoded.at(i);
        const bool endsLine =
            c == QLatin1Char('\r') && decoded.mid(i + 1, 1) == QLatin1String("\n");
        if (c == QLatin1Char('\n'))
            ++line;
        else if (c.category() == QChar::Other_Control && c != QLatin1Char('\t') && !endsLine)
            return QStringLiteral("has a control character in line %1").arg(line);
    }
    return {};
}

} // namespace publish
