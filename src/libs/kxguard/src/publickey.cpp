#include <kxguard/publickey.h>

namespace guard {

PublicKey::PublicKey() = default;

} // namespace guard
