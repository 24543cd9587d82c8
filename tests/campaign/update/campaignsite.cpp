#include "campaignsite.h"

#include "manifest.h"
#include "retrydelay.h"
#include "transfertuning.h"
#include "treebuilder.h"

#include <kxupdater/build.h>

#include <QDir>
#include <QFileInfo>
#include <QSet>

namespace kxtest {
namespace {

constexpr int timeoutSeconds = 30; // of every request of the library

// What stands beside `path`; empty when nothing does.
QString Neighbours(const QString& path)
{
    const QFileInfo info(path);
    QStringList names =
        info.dir().entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    names.removeOne(info.fileName());
    return names.isEmpty() ? QString()
                           : QStringLiteral("beside '%1' there is ").arg(path) +
                                 names.join(QStringLiteral(", "));
}

} // namespace

const QString CampaignSite::package = QStringLiteral("demo");

CampaignSite::CampaignSite(const QString& root) : root(root)
{
    for (const char* name : {"/www", "/place", "/work"})
        TreeBuilder(root + QLatin1String(name));
}

void CampaignSite::Publish(const campaign::RandomTree& tree, const QString& version,
                           const QString& url)
{
    const QString fresh = root + QStringLiteral("/fresh");
    Remove(fresh);
    tree.WriteTo(fresh);
    PublishTree(Server(), package, version, updater::Build::Platform(), fresh, url,
                QStringLiteral("bin/app"));
    Remove(fresh);
}

void CampaignSite::Install(const campaign::RandomTree& tree)
{
    Remove(Application());
    tree.WriteTo(Application());
}

UpdatePlaces CampaignSite::Places(const QString& url, const QString& current) const
{
    return {url, package, current, Application(), Download()};
}

QString CampaignSite::ApplicationProblem(const QStringList& lines) const
{
    const QStringList found = Snapshot(Application());
    if (found != lines)
        return QStringLiteral("the application is not what it should be:\n") +
               Differences(found, lines);
    return Neighbours(Application());
}

QString CampaignSite::Problem(const QStringList& lines) const
{
    const QString problem = ApplicationProblem(lines);
    return problem.isEmpty() ? Neighbours(Download()) : problem;
}

QString CampaignSite::BesideProblem() const
{
    const QString problem = Neighbours(Application());
    return problem.isEmpty() ? Neighbours(Download()) : problem;
}

QString Differences(const QStringList& found, const QStringList& expected)
{
    constexpr int most = 8;
    const QSet<QString> foundSet(found.cbegin(), found.cend());
    const QSet<QString> expectedSet(expected.cbegin(), expected.cend());
    QStringList lines;
    for (const QString& line : expected) {
        if (!foundSet.contains(line))
            lines << QStringLiteral("    missing: ") + line;
    }
    for (const QString& line : found) {
        if (!expectedSet.contains(line))
            lines << QStringLiteral("    instead: ") + line;
    }
    return lines.mid(0, most).join(QLatin1Char('\n'));
}

ShortTimeouts::ShortTimeouts(int unitMs)
    : unitMs(unitMs), retryDelay(updater::internal::RetryDelay())
{
    common::http::TransferTuning& tuning = common::http::Tuning();
    tuning.timeoutUnitMs = unitMs;
    tuning.firstPauseMs = 1;
    tuning.longestPauseMs = unitMs;
    updater::internal::SetRetryDelay(unitMs);
}

ShortTimeouts::~ShortTimeouts()
{
    common::http::Tuning() = common::http::TransferTuning();
    updater::internal::SetRetryDelay(retryDelay);
}

int ShortTimeouts::TimeoutMs() const
{
    return unitMs * timeoutSeconds;
}

} // namespace kxtest
