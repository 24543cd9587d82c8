#include "verifysite.h"

#include "interrupt.h"
#include "output/console.h"
#include "server/recordcheck.h"
#include "signing/signaturecheck.h"
#include "signing/signing.h"
#include "source/names.h"

#include <kxcommon/pathguard.h>
#include <kxupdater/build.h>

#include <QNetworkAccessManager>
#include <QNetworkProxyFactory>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <utility>

namespace publish {
namespace {

constexpr quint64 maxVersionReply = 64 * 1024;
constexpr int maxAgeSeconds = 300;
constexpr int transfersPerManager = 6; // more would wait: as many connections go to one host
constexpr int pollMs = 100;

// Seconds for which a cache may answer by itself; 0 when it has to ask or nothing is said.
qint64 FreshSeconds(const QByteArray& cacheControl)
{
    qint64 seconds = 0;
    for (const QByteArray& part : cacheControl.split(',')) {
        const QByteArray directive = part.trimmed();
        if (directive == "no-cache" || directive == "no-store")
            return 0;
        const qsizetype equals = directive.indexOf('=');
        const QByteArray name = directive.left(equals).trimmed();
        if (equals > 0 && (name == "max-age" || name == "s-maxage"))
            seconds = qMax(seconds, directive.mid(equals + 1).trimmed().toLongLong());
    }
    return seconds;
}

QUrl FileUrl(const QString& base, const QString& name)
{
    return QUrl(base + (base.endsWith(QLatin1Char('/')) ? QString() : QStringLiteral("/")) + name,
                QUrl::TolerantMode);
}

} // namespace

VerifySite::VerifySite(const VerifySettings& settings, VerifyResult* result)
    : settings(settings), result(result), packagesUrl(settings.target)
{
    while (packagesUrl.endsWith(QLatin1Char('/')))
        packagesUrl.chop(1);
    // Either address is at hand: the one that builds are published with, or that of the clients.
    if (!packagesUrl.endsWith(QLatin1String("/packages")))
        packagesUrl += QStringLiteral("/packages");
    // As clients do that are told nothing else.
    QNetworkProxyFactory::setUseSystemConfiguration(true);
    transfers.resize(size_t(settings.jobs));
    for (size_t i = 0; i < transfers.size(); ++i) {
        if (i % transfersPerManager == 0)
            managers.push_back(std::make_unique<QNetworkAccessManager>());
        Transfer& transfer = transfers[i];
        transfer.read = std::make_unique<HttpRead>(managers.back().get(), nullptr);
        transfer.read->MakeSha256(!settings.keys.isEmpty());
        connect(transfer.read.get(), &HttpRead::done, this,
                [this, &transfer] { OnDone(transfer); });
    }
}

VerifySite::~VerifySite() = default;

void VerifySite::Run()
{
    CheckReply();
    result->problems = problems.Refusals();
    result->warnings = problems.Warnings();
    Build build;
    build.version = settings.version.isEmpty() ? result->offered : settings.version;
    build.platform = settings.platform.isEmpty() ? QStringLiteral("x64") : settings.platform;
    if (build.version.isEmpty())
        return;
    for (const QString& name : settings.names) {
        if (IsInterrupted())
            return;
        build.package = name;
        CheckBuild(build);
    }
}

void VerifySite::CheckReply()
{
    const QString address = packagesUrl + QStringLiteral("/version.xml");
    if (!Fetch(QUrl(address, QUrl::TolerantMode), maxVersionReply))
        return;
    const HttpRead& read = *transfers.front().read;
    if (!read.Problem().isEmpty()) {
        problems.Refuse(Shown(address), read.Problem());
        return;
    }
    const QString version = ReadVersionReply(read.Bytes());
    const QString problem = VersionProblem(version);
    if (problem.isEmpty())
        result->offered = version;
    else if (version.isEmpty())
        problems.Refuse(Shown(address), QStringLiteral("names no version; is it a page of another "
                                                       "server, such as a login page?"));
    else
        problems.Refuse(Shown(address), QStringLiteral("its version ") + problem);
    const qint64 seconds = FreshSeconds(read.CacheControl());
    if (seconds > maxAgeSeconds)
        problems.Warn(Shown(address),
                      QStringLiteral("caches may answer with it for %1 seconds; clients learn of a "
                                     "new version that late (Cache-Control)")
                          .arg(seconds));
}

void VerifySite::CheckBuild(const Build& build)
{
    row = VerifyResult::Row();
    row.build = build;
    problems = Problems();
    isSigned = false;
    kept.clear();
    Manifest manifest;
    if (ReadManifestText(build, manifest)) {
        CheckRecords(manifest, &problems);
        CheckFiles(manifest);
        if (isSigned && !IsInterrupted())
            CheckSignedSums(manifest);
        if (!IsInterrupted())
            CheckRanges();
    }
    row.problems = problems.Refusals();
    row.warnings = problems.Warnings();
    result->builds.append(row);
}

bool VerifySite::ReadManifestText(const Build& build, Manifest& manifest)
{
    const QString place = QStringLiteral("%1/%2-v%3/%4/%5")
                              .arg(packagesUrl, build.package, build.version,
                                   updater::Build::OSName(), build.platform);
    const QString address = place + QStringLiteral("/index.xml");
    if (!Fetch(QUrl(address, QUrl::TolerantMode), quint64(MaxReplySize())))
        return false;
    const HttpRead& read = *transfers.front().read;
    if (!read.Problem().isEmpty()) {
        problems.Refuse(Shown(address), read.Problem());
        return false;
    }
    manifest = ReadManifest(build.package, read.Bytes());
    if (manifest.files.isEmpty()) {
        problems.Refuse(Shown(address),
                        QStringLiteral("not a manifest with files of %1").arg(build.package));
        return false;
    }
    if (!common::http::IsFetchable(FileUrl(manifest.downloadUrl, QStringLiteral("x")))) {
        problems.Refuse(Shown(address),
                        QStringLiteral("its DownloadURL %1 is not one of http or https")
                            .arg(Shown(manifest.downloadUrl)));
        return false;
    }
    if (!settings.keys.isEmpty()) {
        const QString problem = ManifestSignatureProblem(read.Bytes(), build, settings.keys);
        isSigned = problem.isEmpty();
        if (!isSigned)
            problems.Refuse(Shown(address), problem);
    }
    if (manifest.downloadUrl != place + QStringLiteral("/files"))
        problems.Warn(Shown(address), QStringLiteral("clients are sent elsewhere for its files: ") +
                                          Shown(manifest.downloadUrl));
    return true;
}

void VerifySite::CheckFiles(const Manifest& manifest)
{
    downloadUrl = manifest.downloadUrl;
    sha256 = manifest.sha256;
    encoded = 0;
    files.clear();
    // What else CheckRecords() has found, clients never ask for.
    for (const updater::File& file : manifest.files) {
        if (!file.IsSymlink() && common::PathGuard::NameViolation(file.Name()).isEmpty())
            files.append(file);
    }
    reasons = QStringList(files.size(), QString());
    next = 0;
    for (Transfer& transfer : transfers)
        StartNext(transfer);
    if (running > 0)
        Wait();
    for (qsizetype i = 0; i < files.size(); ++i) {
        if (!reasons.at(i).isEmpty())
            problems.Refuse(Shown(files.at(i).Name()), reasons.at(i));
    }
    if (encoded > 0)
        problems.Warn(Shown(firstEncoded),
                      encoded == 1
                          ? QStringLiteral("served with a content encoding, which clients reject")
                          : QStringLiteral("served with a content encoding, which clients reject, "
                                           "and %1 more")
                                .arg(encoded - 1));
}

// Larger ones than any list of digests stay unread.
bool VerifySite::IsKept(const updater::File& file) const
{
    return isSigned && SigningFileNames().contains(file.Name()) &&
           file.Size() <= quint64(MaxReplySize());
}

void VerifySite::CheckSignedSums(const Manifest& manifest)
{
    for (const QString& name : SigningFileNames()) {
        if (kept.contains(name))
            continue;
        problems.Refuse(Shown(name), QStringLiteral("could not be compared with the manifest"));
        return;
    }
    CheckSums(kept.value(guard::SumsName()), kept.value(guard::SignatureName()), manifest,
              row.build, settings.keys, &problems);
}

void VerifySite::StartNext(Transfer& transfer)
{
    if (next == files.size() || IsInterrupted())
        return;
    transfer.file = next++;
    const updater::File& file = files.at(transfer.file);
    ++running;
    const bool kept = IsKept(file);
    transfer.read->Start(FileUrl(downloadUrl, file.Name()), file.Size(),
                         kept ? HttpRead::Body::Kept : HttpRead::Body::Hashed);
}

void VerifySite::OnDone(Transfer& transfer)
{
    --running;
    if (transfer.file >= 0) {
        const qsizetype index = std::exchange(transfer.file, -1);
        const updater::File& file = files.at(index);
        const HttpRead& read = *transfer.read;
        ++row.files;
        row.bytes += read.Size();
        if (!read.Problem().isEmpty())
            reasons[index] = read.Problem();
        else if (read.Size() != file.Size())
            reasons[index] =
                QStringLiteral("has %1 bytes instead of %2").arg(read.Size()).arg(file.Size());
        else if (read.Digest().compare(file.MD5(), Qt::CaseInsensitive) != 0)
            reasons[index] = QStringLiteral("has another digest than the manifest says");
        else if (isSigned && read.Sha256Digest() != sha256.value(file.Name()))
            reasons[index] = QStringLiteral("has another SHA-256 digest than the manifest says");
        else if (IsKept(file))
            kept.insert(file.Name(), read.Bytes());
        const QByteArray& encoding = read.ContentEncoding();
        if (!encoding.isEmpty() && encoding != "identity" && encoded++ == 0)
            firstEncoded = file.Name();
        StartNext(transfer);
    }
    if (running == 0)
        loop.quit();
}

// Of the largest file, where it matters most.
void VerifySite::CheckRanges()
{
    const auto largest = std::max_element(
        files.begin(), files.end(),
        [](const updater::File& a, const updater::File& b) { return a.Size() < b.Size(); });
    if (largest == files.end() || largest->Size() < 2)
        return;
    HttpRead& read = *transfers.front().read;
    ++running;
    read.StartRange(FileUrl(downloadUrl, largest->Name()));
    Wait();
    if (!IsInterrupted() && read.Problem().isEmpty() && !read.HasRanges())
        problems.Warn(
            Shown(largest->Name()),
            QStringLiteral("served without ranges; a download that is cut begins from the start"));
}

bool VerifySite::Fetch(const QUrl& url, quint64 most)
{
    ++running;
    transfers.front().read->Start(url, most, HttpRead::Body::KeptUnpacked);
    Wait();
    return !IsInterrupted();
}

void VerifySite::Wait()
{
    // A signal handler may do no more than set a flag, so somebody has to look at it.
    QTimer poll;
    connect(&poll, &QTimer::timeout, this, [this] {
        if (!IsInterrupted())
            return;
        for (Transfer& transfer : transfers)
            transfer.read->Abort();
        running = 0;
        loop.quit();
    });
    poll.start(pollMs);
    loop.exec();
}

} // namespace publish
