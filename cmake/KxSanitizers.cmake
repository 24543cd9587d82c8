# KX_SANITIZER=address instruments every target with the address and undefined behaviour
# sanitizers, KX_SANITIZER=thread with the thread sanitizer; empty instruments nothing.
set(KX_SANITIZER "" CACHE STRING "Sanitizers to build with: empty, address or thread")
set_property(CACHE KX_SANITIZER PROPERTY STRINGS "" address thread)

if(KX_SANITIZER STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(KX_SANITIZER STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(KX_SANITIZER)
    message(FATAL_ERROR "KX_SANITIZER is '${KX_SANITIZER}'; it must be empty, address or thread")
endif()
