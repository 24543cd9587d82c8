#include "updateround.h"

#include "fileidentity.h"
#include "journal.h"
#include "manifest.h"
#include "treebuilder.h"

#include <kxupdater/build.h>

#include <QFile>
#include <QRegularExpression>

#include <algorithm>
#include <filesystem>

#include <sys/stat.h>

namespace campaign {
namespace {

namespace fs = std::filesystem;

QString S(const char* text)
{
    return QString::fromUtf8(text);
}

const QString package = QStringLiteral("app");

// What an install may leave beside the application when it is cut off.
const QStringList installNames = {
    QStringLiteral("app.old"),        QStringLiteral(".app.kxnew"),
    QStringLiteral(".app.kxjournal"), QStringLiteral(".app.kxlock"),
    QStringLiteral(".app.kxprobe"),   QStringLiteral("..app.kxjournal.kxtmp")};

/** Lets everything pass. */
class Idle : public DiskWatcher
{
public:
    Verdict Enter(const DiskCall&) override { return {}; }
    bool WantsResults() const override { return false; }
};

void CopyEntries(const fs::path& from, const fs::path& to)
{
    for (const fs::directory_entry& entry : fs::directory_iterator(from)) {
        const fs::path target = to / entry.path().filename();
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), target);
        } else if (entry.is_directory()) {
            fs::create_directory(target);
            CopyEntries(entry.path(), target);
            fs::permissions(target, entry.status().permissions());
        } else {
            fs::copy_file(entry.path(), target);
        }
    }
}

} // namespace

void CopyWhole(const QString& from, const QString& to)
{
    const fs::path source = QFile::encodeName(from).toStdString();
    const fs::path target = QFile::encodeName(to).toStdString();
    fs::create_directories(target);
    CopyEntries(source, target);
    fs::permissions(target, fs::status(source).permissions());
}

QByteArray DirectoryIdentity(const QString& path)
{
    return guard::IdentityOf(path).toUtf8();
}

void AdaptJournal(const QString& parent, const QList<QPair<QByteArray, QByteArray>>& identities)
{
    for (const QString& name : {S("/.app.kxjournal"), S("/..app.kxjournal.kxtmp")}) {
        if (!kxtest::Exists(parent + name))
            continue;
        guard::Journal journal;
        // One that is cut knows nothing.
        if (!guard::Journal::Parse(kxtest::Read(parent + name), &journal))
            continue;
        for (const auto& [before, now] : identities) {
            if (journal.application == QString::fromUtf8(before)) {
                journal.application = QString::fromUtf8(now);
                break;
            }
        }
        kxtest::Write(parent + name, journal.Text());
    }
}

void CopyPlace(const QString& from, const QString& to)
{
    CopyWhole(from, to);
    QList<QPair<QByteArray, QByteArray>> identities;
    for (const QString& name : {S("/app"), S("/app.old"), S("/.app.kxnew")})
        identities.append({DirectoryIdentity(UpdateRound::Parent(from) + name),
                           DirectoryIdentity(UpdateRound::Parent(to) + name)});
    AdaptJournal(UpdateRound::Parent(to), identities);
}

QString Difference(const QStringList& is, const QStringList& wanted)
{
    QStringList differences;
    for (const QString& line : wanted) {
        if (!is.contains(line))
            differences << S("missing: ") + line;
    }
    for (const QString& line : is) {
        if (!wanted.contains(line))
            differences << S("added: ") + line;
    }
    const qsizetype count = differences.size();
    differences = differences.mid(0, 6);
    if (count > differences.size())
        differences << S("and %1 more").arg(count - differences.size());
    return differences.join(S("; "));
}

TracedEnd RunPlain(const TracedCommand& command)
{
    Idle idle;
    return RunTraced(command, idle);
}

UpdateRound::UpdateRound(const QString& directory, const QString& serverRoot, const QString& url,
                         quint32 seed, int entries)
    : start(directory + S("/start-%1").arg(seed)), baseUrl(url + S("/%1").arg(seed))
{
    const RandomTree before(seed, entries);
    const RandomTree after = before.Mutate(seed + 1000000);
    const QString tree = directory + S("/tree-%1").arg(seed);
    after.WriteTo(tree);
    kxtest::PublishTree(serverRoot + S("/%1").arg(seed), package, S("2.0"),
                        updater::Build::Platform(), tree, baseUrl, S("bin/app"));
    kxtest::Remove(tree);

    before.WriteTo(App(start));
    // What an update does not know and a recovery has to keep.
    kxtest::TreeBuilder(App(start))
        .File(S(".settings"), "the user's\n", 0600)
        .Dir(S("empty"), 0700)
        .File(S(".state/log"), "hidden\n", 0440);
    // Names near those of an install.
    kxtest::TreeBuilder(Parent(start))
        .File(S("app.txt"), "a neighbour\n")
        .File(S("app.older/file"), "another program's backup\n")
        .File(S(".app/file"), "hidden\n")
        .File(S(".app2.kxjournal"), "another program's\n", 0600)
        .File(S(".app2.kxnew/file"), "another program's\n")
        .File(S("app2.old/file"), "another program's\n")
        .File(S("app2/file"), "another program's\n", 0444)
        .Symlink(S("current"), S("app"))
        .Symlink(S(".app2.kxlock"), S("app/bin/app"));
    kxtest::TreeBuilder(start + S("/cache")).File(S("other"), "not of the download\n");
    oldLines = kxtest::Snapshot(App(start));
    newLines = after.UpdatedFrom(before).Lines();
    publishedLines = after.Lines();
    neighbours =
        kxtest::Snapshot(Parent(start)).filter(QRegularExpression(S("^(?!app/|app dir )")));
}

void UpdateRound::Lay(const QString& place) const
{
    kxtest::Remove(place);
    CopyWhole(start, place);
}

TracedCommand UpdateRound::Command(const QString& place) const
{
    TracedCommand command;
    command.environment = {"PATH=/usr/bin:/bin", "HOME=/nonexistent", "LC_ALL=C.UTF-8"};
    command.output = QFile::encodeName(place + S(".output"));
    command.root = QFile::encodeName(place);
    return command;
}

TracedCommand UpdateRound::Update(const QString& place) const
{
    TracedCommand command = Command(place);
    command.program = KX_CAMPAIGN_CHILD;
    command.arguments = {"update",
                         baseUrl.toUtf8(),
                         package.toUtf8(),
                         "1.0",
                         QFile::encodeName(App(place)),
                         QFile::encodeName(Next(place))};
    return command;
}

TracedCommand UpdateRound::Recovering(const QString& place) const
{
    TracedCommand command = Command(place);
    command.program = KX_CAMPAIGN_CHILD;
    command.arguments = {"recover", QFile::encodeName(App(place))};
    return command;
}

TracedCommand UpdateRound::UpdateWithTool(const QString& place) const
{
    TracedCommand command = Command(place);
    command.program = KX_KXUPDATE;
    command.arguments = {"update",
                         "--url",
                         baseUrl.toUtf8(),
                         "--package",
                         package.toUtf8(),
                         "--current",
                         "1.0",
                         "--app",
                         QFile::encodeName(App(place)),
                         "--download",
                         QFile::encodeName(Next(place))};
    return command;
}

UpdateRound::State UpdateRound::StateOf(const QString& place) const
{
    if (!kxtest::Exists(App(place)))
        return State::Missing;
    const QStringList lines = kxtest::Snapshot(App(place));
    if (lines == oldLines)
        return State::Old;
    const bool isNew = lines.size() == newLines.size() &&
                       std::all_of(lines.begin(), lines.end(), [this](const QString& line) {
                           return newLines.contains(line) || publishedLines.contains(line);
                       });
    return isNew ? State::New : State::Broken;
}

QString UpdateRound::WholeProblem(const QString& place, std::initializer_list<State> allowed) const
{
    const State state = StateOf(place);
    if (state == State::Missing)
        return S("there is no application");
    const QString mode = S("%1").arg(kxtest::Mode(App(place)), 0, 8);
    if (mode != S("755"))
        return S("the application directory has the mode %1").arg(mode);
    if (std::find(allowed.begin(), allowed.end(), state) != allowed.end())
        return {};
    const QStringList lines = kxtest::Snapshot(App(place));
    return S("not the old version: %1\n  not the new version: %2")
        .arg(Difference(lines, oldLines), Difference(lines, newLines));
}

QString UpdateRound::NeighbourProblem(const QString& place, bool withLeftovers) const
{
    QStringList lines =
        kxtest::Snapshot(Parent(place))
            .filter(QRegularExpression(S("^(?!app/|app dir |app link |app file )")));
    if (!withLeftovers) {
        const auto isOfInstall = [](const QString& line) {
            for (const QString& name : installNames) {
                if (line.startsWith(name + u'/') || line.startsWith(name + u' '))
                    return true;
            }
            return false;
        };
        lines.erase(std::remove_if(lines.begin(), lines.end(), isOfInstall), lines.end());
    }
    const QString difference = Difference(lines, neighbours);
    return difference.isEmpty() ? QString() : S("beside the application: ") + difference;
}

} // namespace campaign
