#include "passphrase.h"

#include "interrupt.h"
#include "secretfile.h"
#include "secretkeytext.h"

#include "common/terminal.h"

#include <algorithm>

namespace publish {
namespace {

constexpr qsizetype most = SecretKeyText::maxPassphrase;

// minisign reads a line, and what is behind a zero byte is nothing to it.
QString ContentProblem(const SecretBytes& passphrase)
{
    const unsigned char* begin = passphrase.Data();
    const unsigned char* end = begin + passphrase.Size();
    if (begin == end)
        return QStringLiteral("the passphrase is empty");
    if (passphrase.Size() > most)
        return QStringLiteral("the passphrase has more than %1 bytes").arg(most);
    if (std::find(begin, end, '\0') != end)
        return QStringLiteral("the passphrase has a zero byte");
    return {};
}

} // namespace

QString ReadPassphrase(const QString& path, SecretBytes* passphrase, bool* exposed)
{
    const QString problem = ReadSecretFile(path, most + 2, passphrase, exposed);
    if (!problem.isEmpty())
        return problem;
    const unsigned char* begin = passphrase->Data();
    const unsigned char* end = begin + passphrase->Size();
    const unsigned char* line = std::find(begin, end, '\n');
    if (end - line > 1)
        return QStringLiteral("has more than one line, and a passphrase is one");
    const bool hasReturn = line != begin && line != end && line[-1] == '\r';
    passphrase->Truncate(line - begin - (hasReturn ? 1 : 0));
    return ContentProblem(*passphrase);
}

QString AskPassphrase(const QString& prompt, SecretBytes* passphrase)
{
    SecretBytes line(most + 1);
    int length = 0;
    switch (tools::ReadHiddenLine(prompt.toUtf8().constData(), line.Text(), int(line.Size()),
                                  &length, IsInterrupted)) {
    case tools::HiddenLine::Read:
        break;
    case tools::HiddenLine::NoTerminal:
        return QStringLiteral("needs a passphrase, and there is no terminal to ask for it; "
                              "--passphrase-file names a file with it");
    case tools::HiddenLine::Interrupted:
        return QStringLiteral("interrupted");
    }
    line.Truncate(length);
    const QString problem = ContentProblem(line);
    if (problem.isEmpty())
        *passphrase = std::move(line);
    return problem;
}

} // namespace publish
