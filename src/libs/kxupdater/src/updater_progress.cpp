#include "updater.h"

#include "updater_log.h"

namespace updater {
namespace {

struct ProgressRow
{
    const char* name;
    const char* before; // the state that precedes it on the scale, or empty
    double weight;      // negative: the share of its files, see StateWeight()
};

constexpr double shareOfFiles = -1;

constexpr ProgressRow rows[] = {
    {"COPYING", "", shareOfFiles},          {"DOWNLOADING", "COPYING", shareOfFiles},
    {"CREATINGSYMLINKS", "DOWNLOADING", 0}, {"BACKUPREMOVING", "", 0.05},
    {"BACKUPING", "BACKUPREMOVING", 0.05},  {"MOVING", "BACKUPING", 0.7},
    {"BACKUPCLEARING", "MOVING", 0.2},      {"REVERTING", "MOVING", 0.1},
    {"RESTORING", "REVERTING", 0.1},
};

const ProgressRow* FindRow(const QString& name)
{
    for (const ProgressRow& row : rows) {
        if (name == QLatin1String(row.name))
            return &row;
    }
    return nullptr;
}

/** Percent, truncated. The weights are no binary fractions: 0.1 + 0.7 must still make 80. */
int Percent(double fraction)
{
    constexpr double rounding = 1e-9;
    return static_cast<int>(fraction * 100 + rounding);
}

} // namespace

double Updater::StateWeight(const QString& name) const
{
    const ProgressRow* row = FindRow(name);
    if (!row)
        return 0;
    if (row->weight >= 0)
        return row->weight;
    const double sum = static_cast<double>(copyCount) + downloadCount;
    const int count = name == QLatin1String("COPYING") ? copyCount : downloadCount;
    return count / (sum > 0 ? sum : 1);
}

double Updater::StateOffset(const QString& name) const
{
    const ProgressRow* row = FindRow(name);
    if (!row || !*row->before)
        return 0;
    const QString before = QLatin1String(row->before);
    return StateOffset(before) + StateWeight(before);
}

void Updater::OnProgress(int current, int total)
{
    const double fraction = static_cast<double>(current) / (total == 0 ? 1 : total);
    const int percent = Percent(StateOffset(stateName) + StateWeight(stateName) * fraction);
    KX_LOG_STATE(Debug) << " done: " << Percent(fraction) << "%,  Total done: " << percent
                        << "%...";
    Q_EMIT progress(percent);
}

} // namespace updater
