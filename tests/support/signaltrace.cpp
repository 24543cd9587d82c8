#include "signaltrace.h"

#include <QMetaMethod>
#include <QVariant>

#include <utility>

namespace kxtest {
namespace {

QString TextOf(const QMetaType& type, const void* argument)
{
    const QVariant value(type, argument);
    if (value.canConvert<QString>())
        return value.toString();
    return QString::fromUtf8(type.name());
}

QString NameOf(const QString& line)
{
    return line.left(line.indexOf(QLatin1Char('(')));
}

} // namespace

SignalTrace::SignalTrace(QObject* object) : meta(object->metaObject())
{
    // Each signal is received by a method that exists only as a number: see qt_metacall().
    const int first = QObject::staticMetaObject.methodCount();
    for (int i = first; i < meta->methodCount(); ++i) {
        if (meta->method(i).methodType() != QMetaMethod::Signal)
            continue;
        const bool connected =
            QMetaObject::connect(object, i, this, first + i, Qt::DirectConnection);
        if (!connected)
            qFatal("cannot trace %s", meta->method(i).methodSignature().constData());
    }
}

int SignalTrace::qt_metacall(QMetaObject::Call call, int id, void** arguments)
{
    id = QObject::qt_metacall(call, id, arguments);
    if (id < 0 || call != QMetaObject::InvokeMetaMethod)
        return id;

    const QMetaMethod method = meta->method(id);
    QStringList texts;
    for (int i = 0; i < method.parameterCount(); ++i)
        texts << TextOf(method.parameterMetaType(i), arguments[i + 1]);
    const QString line = QStringLiteral("%1(%2)").arg(QString::fromLatin1(method.name()),
                                                      texts.join(QStringLiteral(", ")));
    {
        const QMutexLocker lock(&mutex);
        lines.push_back(line);
    }
    if (hook)
        hook(line);
    return -1;
}

QStringList SignalTrace::Lines() const
{
    const QMutexLocker lock(&mutex);
    return QStringList(lines.cbegin(), lines.cend());
}

QStringList SignalTrace::Filtered(const QStringList& names, bool wanted) const
{
    QStringList result;
    for (const QString& line : Lines()) {
        if (names.contains(NameOf(line)) == wanted)
            result << line;
    }
    return result;
}

QStringList SignalTrace::Only(const QStringList& names) const
{
    return Filtered(names, true);
}

QStringList SignalTrace::Without(const QStringList& names) const
{
    return Filtered(names, false);
}

int SignalTrace::Count(const QString& line) const
{
    return static_cast<int>(Lines().count(line));
}

int SignalTrace::CountOf(const QString& name) const
{
    return static_cast<int>(Only({name}).size());
}

QString SignalTrace::Last() const
{
    const QMutexLocker lock(&mutex);
    return lines.empty() ? QString() : lines.back();
}

void SignalTrace::Clear()
{
    const QMutexLocker lock(&mutex);
    lines.clear();
}

void SignalTrace::SetHook(std::function<void(const QString& line)> function)
{
    hook = std::move(function);
}

} // namespace kxtest
