#include "consoleprogress.h"

#include "console.h"

#include "common/terminal.h"

#include <QLocale>

namespace publish {

bool ConsoleProgress::IsOfUse()
{
    return tools::IsTerminal(tools::Stream::Error);
}

void ConsoleProgress::Show(const Progress& progress)
{
    QString label = QLatin1String(StepText(progress.step));
    if (progress.filesTotal > 0)
        label += QStringLiteral(", %1 of %2 files").arg(progress.files).arg(progress.filesTotal);
    else if (progress.files > 0)
        label += QStringLiteral(", %1 files").arg(progress.files);
    if (progress.bytesTotal > 0)
        label += QStringLiteral(", %1 of %2")
                     .arg(QLocale::c().formattedDataSize(qint64(progress.bytes), 1),
                          QLocale::c().formattedDataSize(qint64(progress.bytesTotal), 1));
    // Small files cost by their number, large ones by their bytes.
    const double share =
        progress.bytesTotal > 0   ? double(progress.bytes) / double(progress.bytesTotal)
        : progress.filesTotal > 0 ? double(progress.files) / double(progress.filesTotal)
                                  : 0.0;
    ShowProgress(int(100.0 * qBound(0.0, share, 1.0)), label);
}

void ConsoleProgress::Clear()
{
    EndProgress();
}

} // namespace publish
