#include "console.h"

namespace tools {

Console::~Console() = default;

void Console::Progress(int percent, const QString& step)
{
    ProgressFigures figures;
    figures.percent = percent;
    figures.step = step;
    Progress(figures);
}

} // namespace tools
