#include "statenames.h"

namespace {

struct Row
{
    const char* name;
    const char* description;
    const char* step;
    bool swap;
};

const Row rows[] = {
    {"CHECKING", "looking for an update", "", false},
    {"QUERYING", "asking the server", "", false},
    {"SCANNING", "reading the installed files", "", false},
    {"AVAILABLE", "there is something to install", "", false},
    {"ACTUAL", "there is nothing to install", "", false},
    {"PREPARING", "planning the new version", "", false},
    {"COPYING", "copying what is unchanged", "copying", false},
    {"DOWNLOADING", "downloading what is new", "downloading", false},
    {"CREATINGSYMLINKS", "making symbolic links", "", false},
    {"VERIFICATION", "verifying the new version", "", false},
    {"INSTALLING", "replacing the application", "", false},
    {"APPCALLBACK", "preparing the swap", "", false},
    {"BACKUPREMOVING", "removing an older backup", "removing backup", true},
    {"BACKUPING", "moving the old version aside", "moving aside", true},
    {"MOVING", "putting the new version in place", "installing", true},
    {"BACKUPCLEARING", "removing the old version", "cleaning up", true},
    {"REVERTING", "removing the unfinished new version", "reverting", true},
    {"RESTORING", "moving the old version back", "restoring", true},
    {"FAILED", "given up after an error", "", false},
    {"CANCELED", "given up as asked", "", false},
    {"SUCCESS", "done", "", false},
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

QString StepName(const QString& name)
{
    const Row* row = Find(name);
    return row ? QString::fromLatin1(row->step) : QString();
}

bool IsSwapState(const QString& name)
{
    const Row* row = Find(name);
    return row && row->swap;
}
