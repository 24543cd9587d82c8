include(GenerateExportHeader)

# kx_library(name ALIAS alias [COMPONENT component] SOURCES ... PUBLIC_LIBS ... PRIVATE_LIBS ...)
#
# Makes NAME, the shared library that hosts link, from NAME_objects, the object library that the
# tests link as well: tests reach the classes that the shared library hides. COMPONENT, by default
# runtime, is that of the library at run time, and so its Debian package.
function(kx_library name)
    cmake_parse_arguments(arg "" "ALIAS;COMPONENT" "SOURCES;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
    if(NOT arg_COMPONENT)
        set(arg_COMPONENT runtime)
    endif()

    set(generated "${CMAKE_CURRENT_BINARY_DIR}/include")
    file(GLOB headers CONFIGURE_DEPENDS include/${name}/*.h)

    add_library(${name}_objects OBJECT ${arg_SOURCES} ${headers})
    kx_warnings(${name}_objects)
    target_compile_definitions(${name}_objects PRIVATE ${name}_EXPORTS)
    set_target_properties(${name}_objects PROPERTIES
        POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    target_include_directories(${name}_objects PUBLIC
        "${CMAKE_CURRENT_SOURCE_DIR}/include" "${generated}" "${CMAKE_CURRENT_SOURCE_DIR}/src")
    target_link_libraries(${name}_objects PUBLIC ${arg_PUBLIC_LIBS} ${arg_PRIVATE_LIBS})

    add_library(${name} SHARED $<TARGET_OBJECTS:${name}_objects>)
    add_library(kx::${arg_ALIAS} ALIAS ${name})
    generate_export_header(${name} EXPORT_FILE_NAME "${generated}/${name}/${name}_export.h")
    set_target_properties(${name} PROPERTIES
        AUTOMOC OFF
        LINKER_LANGUAGE CXX
        EXPORT_NAME ${arg_ALIAS}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        INSTALL_RPATH "$ORIGIN")
    target_compile_features(${name} INTERFACE cxx_std_17)
    target_include_directories(${name} INTERFACE
        "$<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>"
        "$<BUILD_INTERFACE:${generated}>"
        "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
    # PUBLIC_LIBS may name another library's objects; hosts link the shared library instead.
    string(REPLACE "_objects" "" public_libs "${arg_PUBLIC_LIBS}")
    target_link_libraries(${name} PUBLIC ${public_libs} PRIVATE ${arg_PRIVATE_LIBS})
    if(UNIX AND NOT APPLE AND NOT KX_SANITIZER)
        set(map "${PROJECT_SOURCE_DIR}/cmake/exports.map")
        target_link_options(${name} PRIVATE "LINKER:--version-script=${map}" LINKER:--no-undefined)
        set_target_properties(${name} PROPERTIES LINK_DEPENDS "${map}")
    endif()
    if(TARGET kx_tsan)
        target_link_libraries(${name}_objects PUBLIC kx_tsan)
        target_link_libraries(${name} PUBLIC $<BUILD_INTERFACE:kx_tsan>)
    endif()

    install(TARGETS ${name} EXPORT kxupdaterTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
            COMPONENT ${arg_COMPONENT} NAMELINK_COMPONENT development
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
        RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT ${arg_COMPONENT})
    install(FILES ${headers} "${generated}/${name}/${name}_export.h"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${name}" COMPONENT development)
endfunction()
