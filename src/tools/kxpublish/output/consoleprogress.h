#pragma once

#include "progress.h"

namespace publish {

/** Shows progress in place on a terminal; of no use without one. */
class ConsoleProgress : public ProgressSink
{
public:
    /** True when stderr is a terminal: a log is better off without. */
    static bool IsOfUse();

    void Show(const Progress& progress) override;
    void Clear() override;
};

} // namespace publish
