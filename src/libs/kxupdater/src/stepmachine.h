#pragma once

#include <QPointer>
#include <QStateMachine>

namespace updater {

/**
 * A state machine that tells when it is in the middle of a step. Handlers run then that may open
 * event loops of their own, and a machine that was deleted in one of those would come back to
 * nothing.
 */
class StepMachine : public QStateMachine
{
    Q_OBJECT
public:
    explicit StepMachine(QObject* parent) : QStateMachine(parent) {}

    bool IsStepping() const { return depth > 0; }

Q_SIGNALS:
    void stepEnded();

protected:
    void beginMicrostep(QEvent*) override { ++depth; }
    void endMicrostep(QEvent*) override { EndStep(); }

    // The start is no microstep for Qt, but enters states all the same.
    bool event(QEvent* event) override
    {
        const QPointer<StepMachine> self(this);
        ++depth;
        const bool handled = QStateMachine::event(event);
        if (self)
            EndStep();
        return handled;
    }

private:
    void EndStep()
    {
        if (--depth == 0)
            Q_EMIT stepEnded();
    }

    int depth = 0;
};

} // namespace updater
