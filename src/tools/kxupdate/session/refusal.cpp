#include "refusal.h"

#include <kxguard/errors.h>

namespace {

constexpr int conditions = 6201;
constexpr int download = 6202;
constexpr int signatures = 6203;

} // namespace

bool IsRefusal(int code)
{
    const int group = code / 100;
    return group == conditions || group == download || group == signatures;
}

ExitStatus RefusalStatus(int code)
{
    if (code / 100 == signatures)
        return ExitStatus::Untrusted;
    switch (code) {
    case guard::InstallRecovery:
        return ExitStatus::Broken;
    case guard::PackageDiffers:
        return ExitStatus::VerificationFailed;
    default:
        return ExitStatus::Refused;
    }
}
