#include "updaterjournal.h"

#include "signaltrace.h"
#include "updater.h"

#include <kxupdater/package.h>

#include <QRegularExpression>
#include <QSignalTransition>
#include <QState>
#include <QStateMachine>

#include <algorithm>

namespace kxtest {
namespace {

const QString corePrefix = QStringLiteral("updater.core");

bool IsProgress(const QString& line)
{
    return line.startsWith(QLatin1String("progress(")) || line.contains(QLatin1String(":  done: "));
}

bool IsListed(const QString& line)
{
    return line.contains(QLatin1String(":       * '"));
}

} // namespace

Journal::Journal(const QStringList& categories)
    : categories(categories), previous(common::logger::GetLogger())
{
    common::logger::SetLogger(this);
}

Journal::~Journal()
{
    common::logger::SetLogger(previous);
}

void Journal::Trace(QObject* object)
{
    trace = std::make_unique<SignalTrace>(object);
    trace->SetHook([this](const QString& line) {
        static const QString change = QStringLiteral("stateChanged(");
        if (line.startsWith(change))
            state = line.mid(change.size()).chopped(1);
        Add(line);
        if (hook)
            hook(line);
    });
}

void Journal::Mask(const QString& text, const QString& mask)
{
    const QMutexLocker lock(&mutex);
    masks.append({text, mask});
}

void Journal::Add(const QString& line)
{
    const QMutexLocker lock(&mutex);
    QString masked = line;
    for (const auto& mask : std::as_const(masks))
        masked.replace(mask.first, mask.second);
    lines << masked;
}

void Journal::Log(const common::logger::IMessage& message)
{
    const QString category = QString::fromLatin1(message.Category());
    if (!categories.contains(category))
        return;
    const QString prefix =
        category == corePrefix ? QString() : category.section(QLatin1Char('.'), 1) + ' ';
    const QString line =
        prefix + QString::number(message.Level()) + QLatin1Char(' ') + message.Text();
    Add(line);
    if (logHook)
        logHook(line);
}

QStringList Journal::Lines() const
{
    const QMutexLocker lock(&mutex);
    return lines;
}

QStringList Journal::Steady() const
{
    QStringList steady;
    QStringList run;
    const auto endRun = [&] {
        if (run.isEmpty())
            return;
        if (IsProgress(run.first()))
            run = run.mid(std::max<qsizetype>(0, run.size() - 2));
        else
            run.sort();
        steady += std::exchange(run, {});
    };
    for (const QString& line : Lines()) {
        const bool fits =
            !run.isEmpty() &&
            (IsProgress(line) ? IsProgress(run.first()) : IsListed(line) && IsListed(run.first()));
        if (!fits)
            endRun();
        if (IsProgress(line) || IsListed(line))
            run << line;
        else
            steady << line;
    }
    endRun();
    return steady;
}

QStringList Journal::States() const
{
    QStringList states;
    for (const QString& line : Beginning(QStringLiteral("stateChanged(")))
        states << line.mid(13).chopped(1);
    return states;
}

QStringList Journal::Beginning(const QString& prefix) const
{
    QStringList result;
    for (const QString& line : Lines()) {
        if (line.startsWith(prefix))
            result << line;
    }
    return result;
}

void Journal::Clear()
{
    const QMutexLocker lock(&mutex);
    lines.clear();
}

QStringList Entered(const QString& state)
{
    static const QHash<QString, QString> announcements{
        {"WAITING", "waiting()"},
        {"CHECKING", "checking()"},
        {"ACTUAL", "actual()"},
        {"PREPARING", "prepairing()"},
        {"COPYING", "copying()"},
        {"DOWNLOADING", "downloading()"},
        {"CREATINGSYMLINKS", "creatingSymlinks()"},
        {"VERIFICATION", "verification()"},
        {"INSTALLING", "installing()"},
        {"FAILED", "failed()"},
        {"CANCELED", "canceled()"},
    };
    QStringList lines{QStringLiteral("7 %1: entered state.").arg(state),
                      QStringLiteral("stateChanged(%1)").arg(state)};
    // The updater's own connection is older than the journal's.
    if (QStringList{"WAITING", "CHECKING", "PREPARING", "INSTALLING"}.contains(state))
        lines << QStringLiteral("7 %1: Invalidating actual sign.").arg(state);
    if (announcements.contains(state))
        lines << announcements.value(state);
    return lines;
}

QStringList Exited(const QStringList& states)
{
    QStringList lines;
    for (const QString& state : states)
        lines << QStringLiteral("7 %1: exited state %2").arg(states.first(), state);
    return lines;
}

QStateMachine* MachineOf(const updater::Updater& updater)
{
    auto* machine = updater.findChild<QStateMachine*>(QString(), Qt::FindDirectChildrenOnly);
    if (!machine)
        qFatal("the updater has no state machine");
    return machine;
}

QAbstractState* StateOf(const updater::Updater& updater, const QString& name)
{
    auto* state = MachineOf(updater)->findChild<QAbstractState*>(name);
    if (!state)
        qFatal("no state %s", qPrintable(name));
    return state;
}

const QTimer* CheckTimerOf(const updater::Updater& updater)
{
    const auto* waiting = qobject_cast<QState*>(StateOf(updater, QStringLiteral("WAITING")));
    for (const QAbstractTransition* transition : waiting->transitions()) {
        const auto* bySignal = qobject_cast<const QSignalTransition*>(transition);
        if (const auto* timer = qobject_cast<const QTimer*>(bySignal->senderObject()))
            return timer;
    }
    qFatal("no transition listens to a timer");
}

updater::Package* PackageOf(const updater::Updater& updater)
{
    return updater.findChild<updater::Package*>(QString(), Qt::FindDirectChildrenOnly);
}

} // namespace kxtest
