#include "verifycommand.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/disk.h"
#include "server/publishedbuild.h"
#include "signing/keyfiles.h"
#include "source/names.h"
#include "verify/verifysite.h"
#include "verify/verifytree.h"

#include <QJsonArray>

namespace publish {

VerifyCommand::VerifyCommand(const VerifySettings& given) : settings(given) {}

ExitStatus VerifyCommand::Run()
{
    const bool isAddress = settings.target.contains(QLatin1String("://"));
    CheckSettings(isAddress);
    if (!problems.IsEmpty()) {
        problems.Print();
        return ExitRefused;
    }
    if (isAddress) {
        VerifySite site(settings, &result);
        site.Run();
    } else {
        const ServerTree server(ResolvedPath(settings.target));
        if (!CheckServerTree(server, settings.target))
            return ExitRefused;
        VerifyTree tree(settings, server, &result);
        tree.Run();
    }
    if (IsInterrupted()) {
        Complain(QStringLiteral("interrupted, not everything has been read"));
        return ExitInterrupted;
    }
    return result.ProblemCount() == 0 ? ExitDone : ExitDamaged;
}

void VerifyCommand::CheckSettings(bool isAddress)
{
    const auto check = [this](const char* option, const QString& value, const QString& problem) {
        if (!problem.isEmpty())
            problems.Refuse(QLatin1String(option) + QLatin1Char(' ') + Shown(value), problem);
    };
    for (const QString& name : std::as_const(settings.names))
        check("--name", name, PackageProblem(name));
    if (!settings.version.isEmpty())
        check("--version", settings.version, VersionProblem(settings.version));
    if (!settings.platform.isEmpty() && isAddress)
        check("--platform", settings.platform, PlatformProblem(settings.platform));
    if (settings.jobs < 1 || settings.jobs > 16)
        problems.Refuse(QStringLiteral("--jobs %1").arg(settings.jobs),
                        QStringLiteral("is not a number from 1 to 16"));
    settings.keys = LoadPublicKeys(settings.keyFiles, &problems);
    if (!isAddress)
        return;
    const QString problem = BaseUrlProblem(settings.target);
    if (!problem.isEmpty())
        problems.Refuse(Shown(settings.target), problem);
    if (settings.names.isEmpty())
        problems.Refuse(
            Shown(settings.target),
            QStringLiteral("a web server does not tell its packages, --name is needed"));
}

qsizetype VerifyResult::ProblemCount() const
{
    qsizetype count = problems.size();
    for (const Row& row : builds)
        count += row.problems.size();
    return count;
}

QStringList VerifyResult::Lines() const
{
    QStringList lines;
    qsizetype files = 0;
    qsizetype warned = warnings.size();
    quint64 bytes = 0;
    const auto add = [&lines](const QString& place, const QStringList& bad,
                              const QStringList& doubtful) {
        for (const QString& text : doubtful)
            lines.append(QStringLiteral("warning: ") + place + text);
        for (const QString& text : bad)
            lines.append(QStringLiteral("bad: ") + place + text);
    };
    add(QString(), problems, warnings);
    for (const Row& row : builds) {
        add(QStringLiteral("%1 %2 for %3: ")
                .arg(row.build.package, row.build.version, Printable(row.build.platform)),
            row.problems, row.warnings);
        files += row.files;
        bytes += row.bytes;
        warned += row.warnings.size();
    }
    lines.append(QStringLiteral("builds: %1").arg(builds.size()));
    lines.append(QStringLiteral("files: %1").arg(files));
    lines.append(QStringLiteral("bytes: %1").arg(bytes));
    lines.append(QStringLiteral("warnings: %1").arg(warned));
    lines.append(QStringLiteral("problems: %1").arg(ProblemCount()));
    return lines;
}

QJsonObject VerifyResult::ToJson() const
{
    QJsonArray rows;
    for (const Row& row : builds)
        rows.append(
            QJsonObject{{QStringLiteral("name"), row.build.package},
                        {QStringLiteral("version"), row.build.version},
                        {QStringLiteral("platform"), row.build.platform},
                        {QStringLiteral("files"), qint64(row.files)},
                        {QStringLiteral("bytes"), qint64(row.bytes)},
                        {QStringLiteral("problems"), QJsonArray::fromStringList(row.problems)},
                        {QStringLiteral("warnings"), QJsonArray::fromStringList(row.warnings)}});
    return {{QStringLiteral("offered"), offered},
            {QStringLiteral("builds"), rows},
            {QStringLiteral("problems"), QJsonArray::fromStringList(problems)},
            {QStringLiteral("warnings"), QJsonArray::fromStringList(warnings)},
            {QStringLiteral("problemCount"), qint64(ProblemCount())}};
}

} // namespace publish
