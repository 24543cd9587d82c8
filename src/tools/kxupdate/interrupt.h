#pragma once

#include <QObject>

/**
 * Turns the operating system's requests to end (Ctrl-C, a closed terminal, a plain kill) into a
 * signal of the event loop. As long as the object lives none of them ends the process by itself.
 * One object a process, until it ends: where the system can, such requests are ignored afterwards.
 */
class Interrupt : public QObject
{
    Q_OBJECT
public:
    explicit Interrupt(QObject* parent = nullptr);
    ~Interrupt() override;

Q_SIGNALS:
    /** One request came; any number of times, on the owner's thread. */
    void interrupted();

private:
    Q_DISABLE_COPY(Interrupt)
};
