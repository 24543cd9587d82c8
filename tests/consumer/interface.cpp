// Prints the methods of every exported QObject class, in order. Built by interface.pl, which writes
// what is included here and reads the rest of the interface from the debugging information.

#include "headers.inc"

#include <QMetaMethod>
#include <QTextStream>

int main()
{
    static const QMetaObject* const classes[] = {
#include "classes.inc"
    };
    static const char* const kinds[] = {"method", "signal", "slot", "constructor"};
    static const char* const accesses[] = {"private", "protected", "public"};
    QTextStream out(stdout);
    for (const QMetaObject* type : classes) {
        int counts[4] = {};
        for (int i = type->methodOffset(); i < type->methodCount(); ++i) {
            const QMetaMethod method = type->method(i);
            // Counted by kind: a signal after the last signal moves no slot that hosts can notice.
            out << "meta " << type->className() << ' ' << kinds[method.methodType()] << ' '
                << counts[method.methodType()]++ << ' ' << accesses[method.access()] << ' '
                << method.typeName() << ' ' << method.methodSignature() << '\n';
        }
    }
    return 0;
}
