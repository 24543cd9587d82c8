# Debian packages, by "cpack -G DEB" in the build directory or by scripts/package: one a component.
set(kx_package_runtime libkxupdater${PROJECT_VERSION_MAJOR})
set(kx_package_guard libkxguard${PROJECT_VERSION_MAJOR})
set(kx_package_development libkxupdater-dev)
set(kx_package_tools kxupdater-tools)
set(kx_package_documentation kxupdater-doc)

# The version with Debian's revision is that of the changelog's newest entry.
set(kx_changelog "${PROJECT_SOURCE_DIR}/packaging/changelog")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${kx_changelog}")
file(STRINGS "${kx_changelog}" kx_newest LIMIT_COUNT 1)
string(REGEX REPLACE "^.*\\((.*)-(.*)\\).*$" "\\1;\\2" kx_newest "${kx_newest}")
list(GET kx_newest 0 kx_changelog_version)
list(GET kx_newest 1 CPACK_DEBIAN_PACKAGE_RELEASE)
if(NOT kx_changelog_version STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "packaging/changelog begins with version ${kx_changelog_version}, but the "
        "project's is ${PROJECT_VERSION}: add an entry")
endif()
set(kx_exact "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kxupdater)
set(CPACK_PACKAGE_CONTACT "kxupdater developers <kxupdater@example.org>")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://kxupdater.example.org")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has a first line of its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime guard development tools documentation)
set(CPACK_COMPONENTS_GROUPING IGNORE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE kxupdater)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=") # tests/consumer watches over what stays
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(kx_about "kxupdater asks a static web server for the latest version of a program, fetches
the files that differ, and swaps the new version in with a backup and a
rollback.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${kx_package_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "self-update library for Qt 6 applications - shared libraries
${kx_about}

This package holds what programs need at run time.")

set(CPACK_DEBIAN_GUARD_PACKAGE_NAME ${kx_package_guard})
set(CPACK_DEBIAN_GUARD_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_GUARD_PACKAGE_DEPENDS "${kx_package_runtime} ${kx_exact}")
set(CPACK_DEBIAN_GUARD_DESCRIPTION "self-update library for Qt 6 applications - signatures and recovery
${kx_about}

This package holds what programs need at run time that accept signed
packages only, check everything once more before the swap, or recover an
interrupted one.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${kx_package_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${kx_package_runtime} ${kx_exact}, ${kx_package_guard} ${kx_exact}, qt6-base-dev (>= 6.4)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS ${kx_package_documentation})
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "self-update library for Qt 6 applications - development files
${kx_about}

This package holds the headers, and what CMake and pkg-config need.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${kx_package_tools})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${kx_package_runtime} ${kx_exact}, ${kx_package_guard} ${kx_exact}")
# nginx is what kxpublish serve runs.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "${kx_package_documentation}, nginx")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "publishing and installing program updates from the command line
${kx_about}

This package holds kxpublish, which writes the files of the server from a
directory, and kxupdate, which keeps a directory up to date.")

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME ${kx_package_documentation})
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_DESCRIPTION "self-update library for Qt 6 applications - documents
${kx_about}

This package holds the guides, the reference and the examples.")

# The licence as the copyright file's format wants it: indented, a dot for an empty line.
file(READ LICENSE kx_license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" _ "${kx_license}")
set(kx_copyright "${CMAKE_MATCH_1}")
string(REGEX REPLACE "^.*Copyright[^\n]*\n\n" "" kx_license "${kx_license}")
string(REGEX REPLACE "\n\n" "\n.\n" kx_license "${kx_license}")
string(REGEX REPLACE "\n$" "" kx_license "${kx_license}")
string(REPLACE "\n" "\n " kx_license " ${kx_license}")
configure_file(packaging/copyright.in "${PROJECT_BINARY_DIR}/packaging/copyright" @ONLY)

set(CPACK_KX_CHANGELOG "${kx_changelog}")
set(CPACK_KX_CHANGES "${PROJECT_SOURCE_DIR}/CHANGELOG.md")
set(CPACK_KX_COPYRIGHT "${PROJECT_BINARY_DIR}/packaging/copyright")
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/KxPackageStage.cmake")
set(CPACK_POST_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/KxPackageFinish.cmake")
include(CPack)
