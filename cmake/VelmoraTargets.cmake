# Compiler set-up and the functions by which each folder declares its targets.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(GTest REQUIRED)

find_program(VELMORA_CCACHE ccache)
if(VELMORA_CCACHE)
    set(CMAKE_C_COMPILER_LAUNCHER ${VELMORA_CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${VELMORA_CCACHE})
endif()

# A third to a tenth of the time of the default linker, for each of a hundred programs.
find_program(VELMORA_LLD ld.lld)
if(VELMORA_LLD)
    add_link_options(-fuse-ld=lld)
endif()

# Dev: fast enough to run the pixel work, assertions on, line tables only so that links stay quick.
set(CMAKE_CXX_FLAGS_DEV "-O1 -g1" CACHE STRING "" FORCE)
set(CMAKE_C_FLAGS_DEV "-O1 -g1" CACHE STRING "" FORCE)

add_compile_options(-Wall -Wextra -Wpedantic -Werror -Wno-missing-field-initializers)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 reports these inside its own headers once sanitizers or -O2 change what is inlined.
    add_compile_options(-Wno-stringop-overflow -Wno-stringop-overread -Wno-array-bounds -Wno-restrict -Wno-maybe-uninitialized -Wno-dangling-pointer)
endif()
if(VELMORA_SANITIZE)
    add_compile_options(-fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${VELMORA_SANITIZE})
    # Sanitizers inflate frames and defeat the flow analysis behind this warning.
    add_compile_options(-Wno-error)
endif()
if(VELMORA_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
    add_link_options(-fsanitize=fuzzer-no-link)
endif()

# velmora_library(NAME SOURCES a.cpp ... [PUBLIC lib ...] [PRIVATE lib ...])
# Sources are written out. A library without .cpp files becomes an INTERFACE library.
function(velmora_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
    set(compiled ${ARG_SOURCES})
    list(FILTER compiled INCLUDE REGEX "\\.(cpp|c)$")
    if(compiled)
        add_library(${name} STATIC ${ARG_SOURCES})
        target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
        target_link_libraries(${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE})
    else()
        add_library(${name} INTERFACE ${ARG_SOURCES})
        target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR})
        target_link_libraries(${name} INTERFACE ${ARG_PUBLIC})
    endif()
endfunction()

# What ThreadSanitizer needs built.
add_custom_target(threadTests)
# And what the fuzz run does: no window has a fuzzer, and clang with sanitizers is slow.
add_custom_target(fuzzers)

# velmora_test(NAME SOURCES a.cpp ... LIBS lib ... [LABELS l ...] [TIMEOUT seconds] [SERIAL])
# LABELS: "threads" marks what ThreadSanitizer runs; "system" what needs an X server, sockets or a bus.
# SERIAL: the test owns something there is one of (a port, the X displays) and runs alone.
function(velmora_test name)
    cmake_parse_arguments(ARG "SERIAL" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    if(VELMORA_FUZZ)
        return()
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
    if(VELMORA_SANITIZE)
        # A test's own source is not what is examined, and instrumented matchers take the compiler three times
        # as long. Memory stays watched: containers must agree on it across files.
        target_compile_options(${name} PRIVATE -O0 -fno-sanitize=undefined)
    endif()
    add_test(NAME ${name} COMMAND ${name})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
    if("threads" IN_LIST ARG_LABELS)
        add_dependencies(threadTests ${name})
    endif()
    if(ARG_SERIAL)
        set_tests_properties(${name} PROPERTIES RUN_SERIAL ON)
    endif()
endfunction()

# velmora_program(NAME SOURCES a.cpp ... LIBS lib ...)
function(velmora_program name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    if(VELMORA_FUZZ)
        return()
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS})
endfunction()

# velmora_fuzzer(NAME SOURCES a.cpp ... LIBS lib ...): libFuzzer target; its seeds are Tests/Fuzz/Corpora/NAME.
function(velmora_fuzzer name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    if(NOT VELMORA_FUZZ)
        return()
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${name} PRIVATE ${ARG_LIBS})
    set_property(GLOBAL APPEND PROPERTY VELMORA_FUZZERS ${name})
    add_dependencies(fuzzers ${name})
endfunction()

# velmora_wayland_protocol(VARIABLE client|server PATH): code for a protocol of Debian's wayland-protocols, named without
# `.xml`. VARIABLE gets the sources; <NAME-client-protocol.h> is in the folder's build folder.
pkg_get_variable(WAYLAND_PROTOCOLS wayland-protocols pkgdatadir)
find_program(WAYLAND_SCANNER wayland-scanner REQUIRED)
function(velmora_wayland_protocol variable side path)
    get_filename_component(name ${path} NAME)
    set(xml ${WAYLAND_PROTOCOLS}/${path}.xml)
    set(header ${CMAKE_CURRENT_BINARY_DIR}/${name}-${side}-protocol.h)
    set(code ${CMAKE_CURRENT_BINARY_DIR}/${name}-protocol.c)
    add_custom_command(
        OUTPUT ${header} ${code}
        COMMAND ${WAYLAND_SCANNER} ${side}-header ${xml} ${header}
        COMMAND ${WAYLAND_SCANNER} private-code ${xml} ${code}
        DEPENDS ${xml})
    set(${variable} ${${variable}} ${header} ${code} PARENT_SCOPE)
endfunction()
