#pragma once

#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <functional>
#include <vector>

namespace kxtest {

/**
 * Records every signal of one object, whatever its class, as lines "name(argument, argument)" in
 * the order of emission. Connected directly: a signal is recorded inside its emit, on the thread
 * that emits. "destroyed" and "objectNameChanged" are left out.
 */
class SignalTrace : public QObject
{
public:
    explicit SignalTrace(QObject* object);

    QStringList Lines() const;
    /** Only, or all but, the signals with these names (without arguments). */
    QStringList Only(const QStringList& names) const;
    QStringList Without(const QStringList& names) const;
    bool Contains(const QString& line) const { return Count(line) > 0; }
    int Count(const QString& line) const;
    /** Number of emissions of the signal `name`, whatever its arguments. */
    int CountOf(const QString& name) const;
    QString Last() const;
    void Clear();
    /** Runs `hook` with the line, inside the emit, after it was recorded. */
    void SetHook(std::function<void(const QString& line)> function);

    int qt_metacall(QMetaObject::Call call, int id, void** arguments) override;

private:
    Q_DISABLE_COPY(SignalTrace)

    QStringList Filtered(const QStringList& names, bool wanted) const;

    const QMetaObject* meta; // of the traced object, good inside its destructor too
    std::function<void(const QString& line)> hook;
    mutable QMutex mutex;
    std::vector<QString> lines; // guarded by mutex; not shared with what Lines() returns
};

} // namespace kxtest
