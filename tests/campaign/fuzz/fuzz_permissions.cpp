// The permissions of a record, and the text that kxpublish writes for a mode.

#include "fuzztarget.h"

#include "manifest.h" // of kxpublish

#include <kxupdater/file.h>

#include <string>

namespace {

// Qt's flags are the mode's with each digit in hexadecimal: 0754 is 0x0754, without the digit of
// the user, which differs from the owner's.
int ModeOf(QFileDevice::Permissions flags)
{
    KX_FUZZ_REQUIRE((int(flags) & ~0x7077) == 0);
    return (int(flags) >> 6 & 0700) | (int(flags) >> 1 & 0070) | (int(flags) & 0007);
}

int ExpectMode(const std::u16string& text)
{
    int mode = 0;
    for (size_t i = 1; i < 10 && text.size() >= 10; ++i)
        mode |= text[i] == u"xrw"[i % 3] ? 0400 >> (i - 1) : 0;
    return mode;
}

void Check(const QString& text)
{
    const updater::File file(QStringLiteral("a"), {}, 0, text, {});
    const int mode = ModeOf(file.Permissions());
    KX_FUZZ_REQUIRE(file.PermissionsString() == text);
    KX_FUZZ_REQUIRE(mode == ExpectMode(text.toStdU16String()));

    const QString written = publish::PermissionText(mode, false);
    const updater::File again(QStringLiteral("a"), {}, 0, written, {});
    KX_FUZZ_REQUIRE(written.size() == 10 && ModeOf(again.Permissions()) == mode);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Check(kxfuzz::Text(data, size));
    Check(kxfuzz::CodeUnits(data, size));
    return 0;
}
