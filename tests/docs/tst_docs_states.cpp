// Compares docs/states.dot, docs/states.svg and the tables of docs/states.md with the machine that
// an updater builds.

#include "updater.h"

#include <QAbstractState>
#include <QFile>
#include <QFinalState>
#include <QRegularExpression>
#include <QSignalTransition>
#include <QState>
#include <QStateMachine>
#include <QTest>

namespace {

QString ReadDocument(const QString& name)
{
    QFile file(QStringLiteral(KX_SOURCE_DIR "/docs/") + name);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/** The captures of every match, joined by a blank, sorted and without duplicates. */
QStringList Matches(const QString& text, const QString& pattern)
{
    QStringList lines;
    const QRegularExpression expression(pattern, QRegularExpression::MultilineOption);
    for (auto match = expression.globalMatch(text); match.hasNext();)
        lines.append(match.next().capturedTexts().mid(1).join(QLatin1Char(' ')).simplified());
    lines.sort();
    lines.removeDuplicates();
    return lines;
}

} // namespace

class TestDocsStates : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void PictureSourceHasTheTransitionsOfTheMachine();
    void PictureIsDrawnFromItsSource();
    void TableHasTheTransitionsOfTheMachine();
    void TableHasTheStatesOfTheMachine();

private:
    QStringList transitions;   // "FROM signal TO"
    QStringList initialStates; // "PARENT CHILD"
    QStringList states;        // "NAME PARENT", or "NAME"
};

void TestDocsStates::initTestCase()
{
    const updater::Updater updater(nullptr, nullptr);
    const auto* machine = updater.findChild<QStateMachine*>();
    QVERIFY(machine);
    for (const QAbstractState* state : machine->findChildren<QAbstractState*>()) {
        const QState* parent = state->parentState();
        const bool child = parent && parent != machine;
        states.append(child ? state->objectName() + QLatin1Char(' ') + parent->objectName()
                            : state->objectName());
        const auto* compound = qobject_cast<const QState*>(state);
        if (!compound)
            continue;
        if (const QAbstractState* initial = compound->initialState())
            initialStates.append(state->objectName() + QLatin1Char(' ') + initial->objectName());
        for (const QAbstractTransition* transition : compound->transitions()) {
            const auto* bySignal = qobject_cast<const QSignalTransition*>(transition);
            QVERIFY(bySignal);
            QString signal = QString::fromLatin1(bySignal->signal());
            signal.remove(QRegularExpression(QStringLiteral("^[0-9]|\\(.*")));
            transitions.append(
                QStringList{state->objectName(), signal, transition->targetState()->objectName()}
                    .join(QLatin1Char(' ')));
        }
    }
    for (QStringList* list : {&states, &initialStates, &transitions}) {
        list->sort();
        list->removeDuplicates();
    }
    QCOMPARE(states.size(), 22);
}

void TestDocsStates::PictureSourceHasTheTransitionsOfTheMachine()
{
    const QString dot = ReadDocument(QStringLiteral("states.dot"));
    QString drawn = dot;
    drawn.replace(QRegularExpression(QStringLiteral("(\\w+) -> (\\w+) \\[label=\"([^\"]*)\"\\]")),
                  QStringLiteral("\\1 \\3 \\2 transition"));
    QCOMPARE(Matches(drawn, QStringLiteral("^ *(\\w+) +(\\w+) (\\w+) transition;$")), transitions);
    QCOMPARE(Matches(dot, QStringLiteral("(\\w+) -> (\\w+) \\[style=dashed\\]")), initialStates);
}

void TestDocsStates::PictureIsDrawnFromItsSource()
{
    QString picture = ReadDocument(QStringLiteral("states.svg"));
    picture.replace(QLatin1String("&#45;"), QLatin1String("-"))
        .replace(QLatin1String("&gt;"), QLatin1String(">"));
    // Per edge a title "A->B", and where it has one its label.
    const QStringList drawn = Matches(
        picture, QStringLiteral("<title>(\\w+)->(\\w+)</title>(?:\\n<(?:path|polygon)[^>]*>)*"
                                "(?:\\n<text[^>]*>([^<]*)</text>)?"));
    const QString dot = ReadDocument(QStringLiteral("states.dot"));
    const QStringList source =
        Matches(dot, QStringLiteral("(\\w+) -> (\\w+) \\[(?:label=\"([^\"]*)\"|style=dashed)\\];"));
    QVERIFY(!source.isEmpty());
    QCOMPARE(drawn, source);
}

void TestDocsStates::TableHasTheTransitionsOfTheMachine()
{
    const QString page = ReadDocument(QStringLiteral("states.md"));
    QCOMPARE(Matches(page, QStringLiteral("^\\| ([A-Z]+) \\| `(\\w+)` \\| ([A-Z]+) \\|")),
             transitions);
}

void TestDocsStates::TableHasTheStatesOfTheMachine()
{
    const QString page = ReadDocument(QStringLiteral("states.md"));
    // The table of transitions has a signal in its second column, this one a parent or nothing.
    QCOMPARE(Matches(page, QStringLiteral("^\\| ([A-Z]+) \\|(?: ([A-Z]+))? \\| ")), states);
}

QTEST_GUILESS_MAIN(TestDocsStates)
#include "tst_docs_states.moc"
