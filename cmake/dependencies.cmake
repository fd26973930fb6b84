# What the platform for Linux and the tests are made of: all from the distribution's packages.
find_package(PkgConfig REQUIRED)
pkg_check_modules(HIREDIS REQUIRED IMPORTED_TARGET hiredis)
pkg_check_modules(EVENT REQUIRED IMPORTED_TARGET libevent_core)
pkg_check_modules(PROTOBUF_C REQUIRED IMPORTED_TARGET libprotobuf-c)

if(BUILD_TESTING)
    find_package(GTest REQUIRED)

    # The distribution's own interpreter: it has the modules that its packages bring.
    find_program(PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()
