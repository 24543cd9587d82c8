// What can be said without the network.

#include "session.h"

#include "common/console.h"
#include "files/packagefile.h"
#include "files/paths.h"
#include "treereport.h"

namespace {

const QString unknown = QStringLiteral("unknown");

QString Word(bool first, const char* one, const char* other)
{
    return QLatin1String(first ? one : other);
}

} // namespace

void Session::ReportStatus()
{
    const auto data = [this](const char* name, const QString& value) {
        if (!value.isEmpty())
            console.Data(QLatin1String(name), value);
    };
    data("config", options.config);
    data("url", QUrl(options.url).toDisplayString(QUrl::RemovePassword));
    data("package", options.package);
    data("installed", options.current);
    QStringList keys;
    for (const guard::PublicKey& key : options.keys)
        keys.append(key.IdText());
    data("keys", keys.join(u' '));

    data("application", application.Path());
    const QString violation = application.Violation();
    data("application-state", !violation.isEmpty() ? QStringLiteral("unusable")
                              : application.NeedsRestore()
                                  ? QStringLiteral("interrupted")
                                  : Word(application.Exists(), "present", "missing"));
    if (!violation.isEmpty())
        console.Message(violation);
    data("backup", Word(application.BackupExists(), "present", "none"));
    ReportLock(QStringLiteral("application-lock"), application.LockPath());
    ReportSwap();
    if (options.download.isEmpty())
        return FinishStatus();

    data("download", download.Path());
    ReportLock(QStringLiteral("download-lock"), download.LockPath());
    data("last-result", record.Result().isEmpty() ? unknown : record.Result());
    data("last-version", record.Version());
    data("last-time", record.Time());
    if (record.Attempts() > 0)
        data("attempts", QString::number(record.Attempts()));
    ReportDownload();
}

void Session::ReportSwap()
{
    if (!application.BackupExists())
        return;
    const QString backup = application.BackupPath();
    if (guard::FileLock::OwnerOf(application.LockPath()).process > 0)
        console.Message(QStringLiteral("An install is under way; '%1' is the old version until its "
                                       "end.")
                            .arg(backup));
    else if (application.NeedsRestore())
        console.Message(QStringLiteral("A swap was cut off. '%1' is the whole old version: "
                                       "'kxupdate recover' renames it to '%2'.")
                            .arg(backup, application.Path()));
    else
        console.Message(QStringLiteral("'%1' is left from a swap that was cut off. The next one "
                                       "removes it; until then it is a copy of the old version.")
                            .arg(backup));
}

void Session::ReportDownload()
{
    const auto state = [this](const char* word) {
        console.Data(QStringLiteral("download-state"), QLatin1String(word));
        FinishStatus();
    };
    const QString violation = download.Violation(application);
    if (!violation.isEmpty()) {
        console.Message(violation);
        return state("unusable");
    }
    if (download.IsEmpty())
        return state("empty");
    if (!download.IsMarked()) {
        console.Message(download.ClaimViolation());
        return state("foreign");
    }
    if (!packagefile::Read(options.xml, packageXml).isEmpty())
        return state("unfinished");
    manifest = packagefile::Files(options.package.isEmpty() ? packagefile::PackageName(packageXml)
                                                            : options.package,
                                  packageXml);
    const QString version = packagefile::Version(packageXml);
    console.Data(QStringLiteral("download-version"), version.isEmpty() ? unknown : version);
    console.Data(QStringLiteral("download-files"), QString::number(manifest.size()));
    if (manifest.isEmpty())
        return state("unfinished");
    console.Message(
        QStringLiteral("Verifying '%1' against '%2'.").arg(download.Path(), options.xml));
    Scan(download.Path(), SLOT(OnDownloadScanned()));
}

void Session::OnDownloadScanned()
{
    if (awaited != Awaited::Scan)
        return;
    const QList<tools::Difference> differences =
        TreeDifferences(scanner->Files(), manifest) + HiddenDifferences();
    console.Data(QStringLiteral("download-state"),
                 Word(differences.isEmpty(), "complete", "unfinished"));
    console.Differences(differences);
    FinishStatus();
}

void Session::FinishStatus()
{
    Finish(ExitStatus::Done, QStringLiteral("status"));
}
