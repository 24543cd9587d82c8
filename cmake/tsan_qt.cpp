// Teaches the thread sanitizer the ordering that Qt guarantees. Qt itself is not instrumented, so
// that the sanitizer sees neither its mutexes nor its event queues, and would take whatever passes
// from thread to thread in a queued signal for a data race. Linked into whatever the preset "tsan"
// builds.
//
// The edges: everything before an emit, its own end included, a posted event or the end of a thread
// happens before the next event that any thread delivers, before the return of QThread::wait(), and
// before connections are cut.

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QMetaObject>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>

#include <sanitizer/tsan_interface.h>

#include <cstdlib>
#include <new>

// From Qt's private headers: what QtTest uses for its option -vs.
struct QSignalSpyCallbackSet
{
    void (*signalBegin)(QObject* caller, int signal, void** arguments);
    void (*slotBegin)(QObject* caller, int slot, void** arguments);
    void (*signalEnd)(QObject* caller, int signal);
    void (*slotEnd)(QObject* caller, int slot);
};
Q_CORE_EXPORT void qt_register_signal_spy_callbacks(QSignalSpyCallbackSet* callbacks);

extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);

// Stands for all event queues: one variable in the process, however many of its libraries hold
// this file.
__attribute__((visibility("default"))) inline char kxEventOrder;

// Keeps this file in programs that call none of the wrapped functions.
extern "C" void kx_tsan_anchor() {}

namespace {

void Release()
{
    __tsan_release(&kxEventOrder);
}

bool OnDelivery(void**)
{
    __tsan_acquire(&kxEventOrder);
    return false; // the event is delivered as usual
}

[[maybe_unused]] const bool installed = [] {
    static QSignalSpyCallbackSet callbacks = {[](QObject*, int, void**) { Release(); }, nullptr,
                                              [](QObject*, int) { Release(); }, nullptr};
    qt_register_signal_spy_callbacks(&callbacks);
    return QInternal::registerCallback(QInternal::EventNotifyCallback, OnDelivery);
}();

} // namespace

// The linker redirects the calls that instrumented code makes to the functions named in
// KxSanitizers.cmake: their callers reach Wrapped..., which reaches the function itself by Real...
#define KX_WRAP(name, symbol, result, ...)                                                         \
    result Real##name(__VA_ARGS__) asm("__real_" symbol);                                          \
    result Wrapped##name(__VA_ARGS__) asm("__wrap_" symbol);                                       \
    result Wrapped##name(__VA_ARGS__)

KX_WRAP(Wait, "_ZN7QThread4waitE14QDeadlineTimer", bool, QThread* thread, QDeadlineTimer deadline)
{
    const bool ended = RealWait(thread, deadline);
    __tsan_acquire(&kxEventOrder);
    return ended;
}

KX_WRAP(PostEvent, "_ZN16QCoreApplication9postEventEP7QObjectP6QEventi", void, QObject* receiver,
        QEvent* event, int priority)
{
    Release();
    RealPostEvent(receiver, event, priority);
}

KX_WRAP(DeleteLater, "_ZN7QObject11deleteLaterEv", void, QObject* object)
{
    Release();
    RealDeleteLater(object);
}

KX_WRAP(InvokeFunctor,
        "_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14Connectio"
        "nTypeEPv",
        bool, QObject* context, QtPrivate::QSlotObjectBase* functor, Qt::ConnectionType type,
        void* returned)
{
    Release();
    const bool invoked = RealInvokeFunctor(context, functor, type, returned);
    __tsan_acquire(&kxEventOrder); // a blocking call has waited for the other thread
    return invoked;
}

KX_WRAP(InvokeMethod,
        "_ZN11QMetaObject12invokeMethodEP7QObjectPKcN2Qt14ConnectionTypeE22QGenericReturnArgument16"
        "QGenericArgumentS7_S7_S7_S7_S7_S7_S7_S7_S7_",
        bool, QObject* object, const char* member, Qt::ConnectionType type,
        QGenericReturnArgument returned, QGenericArgument a0, QGenericArgument a1,
        QGenericArgument a2, QGenericArgument a3, QGenericArgument a4, QGenericArgument a5,
        QGenericArgument a6, QGenericArgument a7, QGenericArgument a8, QGenericArgument a9)
{
    Release();
    const bool invoked =
        RealInvokeMethod(object, member, type, returned, a0, a1, a2, a3, a4, a5, a6, a7, a8, a9);
    __tsan_acquire(&kxEventOrder);
    return invoked;
}

KX_WRAP(Disconnect, "_ZN7QObject10disconnectEPKS_PKcS1_S3_", bool, const QObject* sender,
        const char* signal, const QObject* receiver, const char* member)
{
    // An emit on another thread may have left types of arguments with the connection.
    __tsan_acquire(&kxEventOrder);
    return RealDisconnect(sender, signal, receiver, member);
}

KX_WRAP(SemaphoreRelease, "_ZN10QSemaphore7releaseEi", void, QSemaphore* semaphore, int count)
{
    __tsan_release(semaphore);
    RealSemaphoreRelease(semaphore, count);
}

KX_WRAP(SemaphoreAcquire, "_ZN10QSemaphore7acquireEi", void, QSemaphore* semaphore, int count)
{
    RealSemaphoreAcquire(semaphore, count);
    __tsan_acquire(semaphore);
}

KX_WRAP(SemaphoreTryAcquire, "_ZN10QSemaphore10tryAcquireEi", bool, QSemaphore* semaphore,
        int count)
{
    const bool acquired = RealSemaphoreTryAcquire(semaphore, count);
    if (acquired)
        __tsan_acquire(semaphore);
    return acquired;
}

KX_WRAP(SemaphoreTryAcquireFor, "_ZN10QSemaphore10tryAcquireEii", bool, QSemaphore* semaphore,
        int count, int milliseconds)
{
    const bool acquired = RealSemaphoreTryAcquireFor(semaphore, count, milliseconds);
    if (acquired)
        __tsan_acquire(semaphore);
    return acquired;
}

// An allocation counts as a write to all of it, and so does its end. Qt allocates what it queues
// after the emit has begun, so that nothing orders that write before the delivery: it must not
// count. The arrays are types of arguments that Qt keeps with a connection: whichever thread cuts
// it deletes them.
namespace {

void* Allocate(std::size_t size)
{
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    void* memory = std::malloc(size ? size : 1);
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void FreeArray(void* memory)
{
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    std::free(memory);
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
}

} // namespace

void* operator new(std::size_t size)
{
    return Allocate(size);
}

void* operator new[](std::size_t size)
{
    return Allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    FreeArray(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    FreeArray(memory);
}
