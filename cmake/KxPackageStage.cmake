# Run by cpack over the installed files of each package, before it packs them: what Debian's packages
# have and an installed copy has not.
function(kx_gzip from to)
    # Without name and time: the same input gives the same package.
    execute_process(COMMAND gzip -9nc "${from}" OUTPUT_FILE "${to}" COMMAND_ERROR_IS_FATAL ANY)
    kx_readable("${to}")
endfunction()

function(kx_readable file)
    file(CHMOD "${file}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    set(root "${CPACK_TEMPORARY_DIRECTORY}/${component}")
    string(TOUPPER "${component}" upper)
    set(package "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")

    set(doc "${root}/usr/share/doc/${package}")
    file(MAKE_DIRECTORY "${doc}")
    file(COPY_FILE "${CPACK_KX_COPYRIGHT}" "${doc}/copyright")
    kx_readable("${doc}/copyright")
    kx_gzip("${CPACK_KX_CHANGES}" "${doc}/changelog.gz")
    kx_gzip("${CPACK_KX_CHANGELOG}" "${doc}/changelog.Debian.gz")

    # The system's directories are searched anyway. A run path is for copies under a prefix.
    file(GLOB_RECURSE files LIST_DIRECTORIES false "${root}/usr/bin/*" "${root}/usr/lib/*.so.*")
    foreach(file IN LISTS files)
        if(NOT IS_SYMLINK "${file}")
            file(RPATH_REMOVE FILE "${file}")
        endif()
    endforeach()

    file(GLOB_RECURSE pages LIST_DIRECTORIES false "${root}/usr/share/man/*.[1-8]")
    foreach(page IN LISTS pages)
        kx_gzip("${page}" "${page}.gz")
        file(REMOVE "${page}")
    endforeach()

    # Whatever the umask of who makes the packages.
    execute_process(COMMAND find "${root}" -type d -exec chmod 0755 {} + COMMAND_ERROR_IS_FATAL ANY)
endforeach()
