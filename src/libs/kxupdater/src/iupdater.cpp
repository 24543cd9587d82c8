#include <kxupdater/iupdater.h>

namespace updater {

AppCallbackFunction::~AppCallbackFunction() = default;

IUpdater::IUpdater() = default;

IUpdater::~IUpdater() = default;

} // namespace updater
