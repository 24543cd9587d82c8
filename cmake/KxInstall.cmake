# Package files of an installed copy: the CMake package "kxupdater" and the pkg-config files.
include(CMakePackageConfigHelpers)
set(kx_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/kxupdater")

install(EXPORT kxupdaterTargets NAMESPACE kx:: DESTINATION "${kx_cmake_dir}" COMPONENT development)
configure_package_config_file(cmake/kxupdaterConfig.cmake.in
    "${PROJECT_BINARY_DIR}/kxupdaterConfig.cmake" INSTALL_DESTINATION "${kx_cmake_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/kxupdaterConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/kxupdaterConfig.cmake"
    "${PROJECT_BINARY_DIR}/kxupdaterConfigVersion.cmake"
    DESTINATION "${kx_cmake_dir}" COMPONENT development)

# A .pc file finds the prefix from its own place, so that the prefix can be moved.
file(RELATIVE_PATH kx_pc_to_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
foreach(name kxupdater kxguard)
    configure_file(cmake/${name}.pc.in "${PROJECT_BINARY_DIR}/${name}.pc" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/${name}.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
endforeach()
