# KX_SANITIZER=address instruments every target with the address and undefined behaviour
# sanitizers, KX_SANITIZER=thread with the thread sanitizer; empty instruments nothing.
# KX_SANITIZER=fuzzer, for clang only, is address with the coverage that libFuzzer goes by; there are
# no tests then but the fuzz targets.
set(KX_SANITIZER "" CACHE STRING "Sanitizers to build with: empty, address, thread or fuzzer")
set_property(CACHE KX_SANITIZER PROPERTY STRINGS "" address thread fuzzer)

if(KX_SANITIZER STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(KX_SANITIZER STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(KX_SANITIZER STREQUAL "fuzzer")
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(KX_SANITIZER)
    message(FATAL_ERROR
        "KX_SANITIZER is '${KX_SANITIZER}'; it must be empty, address, thread or fuzzer")
endif()

# kx_tsan: what every link under the thread sanitizer needs to know about Qt; see tsan_qt.cpp.
if(KX_SANITIZER STREQUAL "thread")
    add_library(kx_tsan STATIC "${CMAKE_CURRENT_LIST_DIR}/tsan_qt.cpp")
    set_target_properties(kx_tsan PROPERTIES AUTOMOC OFF POSITION_INDEPENDENT_CODE ON)
    target_link_libraries(kx_tsan PUBLIC Qt6::Core)
    target_link_options(kx_tsan INTERFACE LINKER:-u,kx_tsan_anchor
        LINKER:--wrap=_ZN7QThread4waitE14QDeadlineTimer
        LINKER:--wrap=_ZN16QCoreApplication9postEventEP7QObjectP6QEventi
        LINKER:--wrap=_ZN7QObject11deleteLaterEv
        LINKER:--wrap=_ZN7QObject10disconnectEPKS_PKcS1_S3_
        LINKER:--wrap=_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv
        LINKER:--wrap=_ZN11QMetaObject12invokeMethodEP7QObjectPKcN2Qt14ConnectionTypeE22QGenericReturnArgument16QGenericArgumentS7_S7_S7_S7_S7_S7_S7_S7_S7_
        LINKER:--wrap=_ZN10QSemaphore7releaseEi
        LINKER:--wrap=_ZN10QSemaphore7acquireEi
        LINKER:--wrap=_ZN10QSemaphore10tryAcquireEi
        LINKER:--wrap=_ZN10QSemaphore10tryAcquireEii)
endif()
