# kx_warnings(target): the warning set of every target of this project; each one is an error.
function(kx_warnings target)
    if(MSVC)
        target_compile_options(${target} PRIVATE /W4 /WX /utf-8)
    else()
        target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror
            $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>)
    endif()
    target_compile_definitions(${target} PRIVATE
        QT_NO_KEYWORDS QT_NO_CAST_TO_ASCII QT_DISABLE_DEPRECATED_BEFORE=0x060400)
endfunction()
