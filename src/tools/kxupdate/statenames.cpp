#include "statenames.h"

namespace {

struct Row
{
    const char* name;
    const char* description;
    bool swap;
};

const Row rows[] = {
    {"QUERYING", "asking the server", false},
    {"SCANNING", "reading the installed files", false},
    {"PREPARING", "planning the new version", false},
    {"COPYING", "copying what is unchanged", false},
    {"DOWNLOADING", "downloading what is new", false},
    {"CREATINGSYMLINKS", "making symbolic links", false},
    {"VERIFICATION", "verifying the new version", false},
    {"APPCALLBACK", "preparing the swap", false},
    {"BACKUPREMOVING", "removing an older backup", true},
    {"BACKUPING", "moving the old version aside", true},
    {"MOVING", "putting the new version in place", true},
    {"BACKUPCLEARING", "removing the old version", true},
    {"REVERTING", "removing the unfinished new version", true},
    {"RESTORING", "moving the old version back", true},
};

const Row* Find(const QString& name)
{
    for (const Row& row : rows) {
        if (name == QLatin1String(row.name))
            return &row;
    }
    return nullptr;
}

} // namespace

QString StateDescription(const QString& name)
{
    const Row* row = Find(name);
    return row ? QString::fromLatin1(row->description) : QString();
}

bool IsSwapState(const QString& name)
{
    const Row* row = Find(name);
    return row && row->swap;
}
