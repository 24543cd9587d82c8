#include "errorcodes.h"

#include "treebuilder.h"

#include <kxupdater/errors.h>

#include <QRegularExpression>

namespace kxtest {

QSet<int> DocumentedErrorCodes()
{
    const QString text = QString::fromUtf8(Read(QStringLiteral(KX_SOURCE_DIR "/docs/errors.md")));
    static const QRegularExpression row(QStringLiteral("^\\| (\\d{6}) `"),
                                        QRegularExpression::MultilineOption);
    QSet<int> codes;
    for (const QRegularExpressionMatch& match : row.globalMatch(text))
        codes << match.captured(1).toInt();
    return codes;
}

bool HasFixedText(int code)
{
    return code == updater::VersionParseFailed || code == updater::PackageParseFailed ||
           code == updater::VerificationFailed || code == updater::DownloadStartFailed ||
           code == updater::DownloadAborted;
}

} // namespace kxtest
