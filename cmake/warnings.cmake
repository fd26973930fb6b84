# Flags of the project's own C++ code: warnings are errors (but where cmake is called with
# --compile-no-warning-as-error), no exceptions, no RTTI.
set(CMAKE_COMPILE_WARNING_AS_ERROR ON)

add_library(project_flags INTERFACE)
target_compile_options(project_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-align -Wcast-qual -Wformat=2
    -Wundef -Wmissing-declarations -Wnull-dereference -Wdouble-promotion -Wimplicit-fallthrough -Wvla)

add_library(daemon_flags INTERFACE)
target_link_libraries(daemon_flags INTERFACE project_flags)
target_compile_options(daemon_flags INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions>
    $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>
    -ffunction-sections -fdata-sections)

# The release is built for size, except for the sources of `target`, in this folder, that render a whole file at each
# change: for size the compiler copies short texts and divides by slow instructions, which doubles the time of a change.
function(build_for_speed target)
    set_source_files_properties(${ARGN} TARGET_DIRECTORY ${target} PROPERTIES
        COMPILE_OPTIONS $<$<CONFIG:MinSizeRel>:-O2>)
endfunction()
