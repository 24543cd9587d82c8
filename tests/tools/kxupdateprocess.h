#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

/** One run of the real kxupdate, its two streams kept apart. The test's event loop goes on while it
 *  runs, so that a server in it answers. */
class KxupdateProcess
{
public:
    KxupdateProcess();
    ~KxupdateProcess();

    /** Home directory of the process; nobody's by default. */
    void SetHome(const QString& directory);
    void SetWorkingDirectory(const QString& directory) { process.setWorkingDirectory(directory); }
    /** Without root's powers over rights, also when the tests run as root. */
    void DropPowers() { powerless = true; }
    /** Files cannot grow beyond `bytes`: a disk that refuses to take more. */
    void LimitFileSize(qint64 bytes) { fileSize = bytes; }
    /** Sends itself the signal `times` times when it has printed `text`. */
    void InterruptAt(const QString& text, int times, int number);
    /** Its stderr is a terminal of that width; Errors() then holds what came there. */
    void UseTerminal(int width = 120)
    {
        terminal = true;
        columns = width;
    }
    /** Changes the width of the terminal under the running process. */
    void Resize(int width);

    /** Starts without stdin, stdout and stderr. */
    void CloseStreams() { closed = true; }

    void Start(const QStringList& arguments);
    void Signal(int number);
    /** Variable of the environment, which is otherwise nearly empty. */
    void SetVariable(const QString& name, const QString& value) { environment.insert(name, value); }
    /** Waits until the running process has printed `text` on stdout `times` times in all. */
    bool AwaitOutput(const QString& text, int times = 1);
    /** The same for stderr. */
    bool AwaitErrors(const QString& text, int times = 1);
    /** Takes in what has been printed so far. */
    void Read();
    /** Waits until it ends; false when it does not, or crashes. */
    bool Wait();
    bool Run(const QStringList& arguments);

    /** What stands behind a file descriptor of the running process. */
    QString OpenFile(int descriptor) const;
    qint64 Id() const { return process.processId(); }
    bool IsRunning() const { return process.state() != QProcess::NotRunning; }
    int Status() const { return process.exitCode(); }
    QString Output() const { return output; }
    QString Errors() const { return errors; }
    /** Value of the last "name: value" line of the output. */
    QString Data(const QString& name) const;
    /** Everything, for a failure message. */
    QByteArray Report() const;

private:
    Q_DISABLE_COPY(KxupdateProcess)

    void ReadTerminal();

    QProcess process;
    QProcessEnvironment environment;
    bool powerless = false;
    qint64 fileSize = -1;
    bool terminal = false;
    int columns = 0;
    bool closed = false;
    int master = -1;
    int slave = -1;
    QString output;
    QString errors;
};
