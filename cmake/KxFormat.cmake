# Targets "format" (rewrites) and "format-check" (fails on a difference) over the C++ sources, and
# the test "format". Versions of clang-format differ in their opinions: 14 is the one that counts.
find_program(KX_CLANG_FORMAT NAMES clang-format-14)
if(PROJECT_IS_TOP_LEVEL AND KX_CLANG_FORMAT)
    file(GLOB_RECURSE kx_sources CONFIGURE_DEPENDS
        cmake/*.cpp src/*.h src/*.cpp tests/*.h tests/*.cpp bench/*.h bench/*.cpp
        examples/*.h examples/*.cpp)
    set(kx_format_check ${KX_CLANG_FORMAT} --dry-run -Werror ${kx_sources})
    add_custom_target(format COMMAND ${KX_CLANG_FORMAT} -i ${kx_sources} VERBATIM)
    add_custom_target(format-check COMMAND ${kx_format_check} VERBATIM)
    if(KX_BUILD_TESTS AND NOT KX_SANITIZER)
        add_test(NAME format COMMAND ${kx_format_check})
    endif()
endif()
