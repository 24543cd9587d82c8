# Targets "format" (rewrites) and "format-check" (fails on a difference) over the C++ sources.
find_program(KX_CLANG_FORMAT NAMES clang-format-14 clang-format)
if(PROJECT_IS_TOP_LEVEL AND KX_CLANG_FORMAT)
    file(GLOB_RECURSE kx_sources CONFIGURE_DEPENDS
        src/*.h src/*.cpp tests/*.h tests/*.cpp bench/*.h bench/*.cpp examples/*.h examples/*.cpp)
    add_custom_target(format COMMAND ${KX_CLANG_FORMAT} -i ${kx_sources} VERBATIM)
    add_custom_target(format-check
        COMMAND ${KX_CLANG_FORMAT} --dry-run -Werror ${kx_sources} VERBATIM)
endif()
