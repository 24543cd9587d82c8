# kx_add_test(name SOURCES ... [LIBS ...] [LABELS ...] [TIMEOUT seconds])
#
# One test program. It links the object libraries, so that it reaches hidden classes too. The label
# "sanitize" marks what threads or parses: it runs under the sanitizers as well; a sanitizer build
# leaves out the others.
function(kx_add_test name)
    cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    if(KX_SANITIZER AND NOT "sanitize" IN_LIST arg_LABELS)
        return()
    endif()
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 300)
    endif()
    add_executable(${name} ${arg_SOURCES})
    kx_warnings(${name})
    target_link_libraries(${name} PRIVATE kx_testsupport Qt6::Test ${arg_LIBS})
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}"
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;LC_ALL=C.UTF-8")
endfunction()
