#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include <functional>

namespace kxtest {

/** How many of `rounds` start programs: one in `times`. None in a sanitizer build: its programs are
 *  slow, and threads must not start behind a fork under the thread sanitizer. */
int RoundsWithPrograms(int rounds, int times);

/** Runs the event loop until the condition holds; false when it does not for very long. */
bool AwaitCondition(const std::function<bool()>& condition);

/**
 * A program that is started beside others, and its words line by line. The event loop goes on while
 * it is waited for, so that a server in it answers. Ends with the object.
 */
class Peer
{
public:
    Peer(const QString& program, const QStringList& arguments);
    ~Peer();

    /** Waits for a line that begins with `word`; false when the program ends without it. */
    bool Await(const QString& word);
    /** Sends a line, with the moment to begin at; 0: at once. */
    void Go(qint64 moment = 0);
    /** A moment that is near, but late enough for two to hear of it before, on steady_clock. */
    static qint64 NearMoment();
    void Kill();
    /** Waits until it has ended. */
    bool AwaitEnd();

    /** First word behind "end ", empty when it has not come. */
    QString Result() const;
    int Status() const { return process.exitCode(); }
    /** All that it has said, errors as well. */
    QString Text() const { return text; }

private:
    Q_DISABLE_COPY(Peer)

    void Read();

    QProcess process;
    QString text;
};

} // namespace kxtest
