#include "updaterhost.h"

UpdaterHost::UpdaterHost(const Options& options, QObject* parent)
    : QObject(parent), manager(options), updater(updater::CreateUpdater(&manager, nullptr))
{
    connect(updater.get(), SIGNAL(error(int, const QString&)), SIGNAL(error(int, const QString&)));
}

UpdaterHost::~UpdaterHost() = default;
