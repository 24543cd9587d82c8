// Files of keys and signatures, trusted comments, and lists of digests. Each input is given to all
// of them: what is read must write back to the same bytes, and nothing else than the one signature
// that was made over the message is taken for it.

#include "fuzzkey.h"
#include "fuzztarget.h"

#include <kxguard/signedtree.h>

#include <filesystem>

namespace {

using guard::PublicKey;
using guard::Signature;
using guard::Sums;

const QByteArray message = QByteArrayLiteral("what was signed");
// The seeds have its public key and this signature.
const kxfuzz::Key& Signer()
{
    static const kxfuzz::Key key('k');
    return key;
}

const Signature& Genuine()
{
    static const Signature signature =
        Signer().Sign(message, "package:demo-app version:2.4.1 platform:x64");
    return signature;
}

const kxfuzz::Key& Stranger()
{
    static const kxfuzz::Key key('s');
    return key;
}

bool AreSame(const Signature& a, const Signature& b)
{
    return a.SignatureText() == b.SignatureText() && a.TrustedComment() == b.TrustedComment() &&
           a.CommentSignatureText() == b.CommentSignatureText();
}

void CheckKey(const QByteArray& text)
{
    PublicKey key;
    if (PublicKey::Parse(text, &key)) {
        KX_FUZZ_REQUIRE(!key.IsValid());
        return;
    }
    KX_FUZZ_REQUIRE(key.IsValid() && key.Id().size() == 8 && key.Key().size() == 32);
    const QByteArray lines = text.endsWith('\n') ? text.chopped(1) : text;
    KX_FUZZ_REQUIRE(lines.mid(lines.lastIndexOf('\n') + 1) == key.Text());
    PublicKey again;
    KX_FUZZ_REQUIRE(!PublicKey::Parse(key.FileText(), &again) && again.Text() == key.Text());
    // Whoever has it, under the id that the signature names: only the signer's own fits.
    const PublicKey renamed(Genuine().KeyId(), key.Key());
    KX_FUZZ_REQUIRE(bool(Genuine().Verify(message, {renamed})) ==
                    (key.Key() != Signer().Public().Key()));
}

void CheckSignature(const QByteArray& text)
{
    Signature signature;
    if (Signature::Parse(text, &signature)) {
        KX_FUZZ_REQUIRE(!signature.IsValid() && signature.Verify(message, {Signer().Public()}));
        return;
    }
    KX_FUZZ_REQUIRE(signature.IsValid());
    const QByteArray written = signature.FileText();
    // The first line is nobody's word, and the last may have no end.
    const QByteArray behindFirst = text.mid(text.indexOf('\n'));
    KX_FUZZ_REQUIRE(written.mid(written.indexOf('\n')) ==
                    (text.endsWith('\n') ? behindFirst : behindFirst + '\n'));

    const bool accepted = !signature.Verify(message, {Stranger().Public(), Signer().Public()});
    KX_FUZZ_REQUIRE(accepted == AreSame(signature, Genuine()));
    const PublicKey strange(signature.KeyId(), Stranger().Public().Key());
    KX_FUZZ_REQUIRE(signature.Verify(message, {strange}));
    KX_FUZZ_REQUIRE(signature.Verify(message + '\n', {Signer().Public()}));
    KX_FUZZ_REQUIRE(signature.Verify(message, {}));
}

void CheckComment(const QString& text)
{
    guard::PackageIdentity identity;
    if (guard::ReadTrustedComment(text, &identity))
        return;
    KX_FUZZ_REQUIRE(identity.Violation().isEmpty());
    KX_FUZZ_REQUIRE(guard::TrustedComment(identity) == text);
    // The parts become part of an address.
    for (const QString& part : {identity.package, identity.version, identity.platform})
        KX_FUZZ_REQUIRE(!part.isEmpty() && !part.contains(QLatin1Char('/')));
}

void CheckName(const QString& name)
{
    const std::filesystem::path root("/r/root");
    const std::string relative =
        (root / name.toStdString()).lexically_normal().lexically_relative(root).string();
    KX_FUZZ_REQUIRE(relative == name.toStdString());
    KX_FUZZ_REQUIRE(relative != "." && relative.rfind("../", 0) != 0);
}

void CheckSums(const QByteArray& text)
{
    Sums sums;
    if (Sums::Parse(text, &sums)) {
        KX_FUZZ_REQUIRE(sums.files.isEmpty() && sums.links.isEmpty());
        return;
    }
    KX_FUZZ_REQUIRE(sums.Violation().isEmpty());
    KX_FUZZ_REQUIRE(sums.Text() == text);
    KX_FUZZ_REQUIRE(text.count('\n') == sums.files.size() + sums.links.size());
    for (auto file = sums.files.cbegin(); file != sums.files.cend(); ++file) {
        CheckName(file.key());
        KX_FUZZ_REQUIRE(file.value().size() == 64 && !sums.links.contains(file.key()));
    }
    for (const QString& link : sums.links.keys())
        CheckName(link);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    KX_FUZZ_REQUIRE(!Genuine().Verify(message, {Signer().Public()}));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text = kxfuzz::Bytes(data, size);
    CheckKey(text);
    CheckSignature(text);
    CheckComment(kxfuzz::Text(data, size));
    CheckSums(text);
    return 0;
}
