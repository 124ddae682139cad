# Compiler settings shared by every target of the project: link tarnwell_options, or use the functions below.
add_library(tarnwell_options INTERFACE)
target_compile_options(tarnwell_options INTERFACE
    -Wall -Wextra -Wpedantic -Werror -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wformat=2
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    # g++ 12 sees faults in its own std::string and std::variant at -O2 that are not there.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized -Wno-restrict -Wno-array-bounds
                                  -Wno-stringop-overflow -Wno-stringop-overread>)
# The words emit, signals and slots stay ours: Qt spells its own in capitals.
target_compile_definitions(tarnwell_options INTERFACE _FILE_OFFSET_BITS=64 QT_NO_KEYWORDS)
if(TARNWELL_SANITIZE)
    target_compile_options(tarnwell_options INTERFACE -fsanitize=${TARNWELL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
    target_link_options(tarnwell_options INTERFACE -fsanitize=${TARNWELL_SANITIZE})
    if(TARNWELL_SANITIZE STREQUAL thread AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        # Asio's fences: the sanitizer does not follow them, and the locks beside them order the same memory.
        target_compile_options(tarnwell_options INTERFACE -Wno-tsan)
    endif()
endif()

# tarnwell_room(NAME LINKS...): the static library of one room, made of the folder's own sources
# (only its headers while it has none).
# The arrows between the rooms are the link lines.
function(tarnwell_room name)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    if(sources)
        add_library(tarnwell_${name} STATIC ${sources})
        set(reach PUBLIC)
    else()
        add_library(tarnwell_${name} INTERFACE)
        set(reach INTERFACE)
    endif()
    target_include_directories(tarnwell_${name} ${reach} ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(tarnwell_${name} ${reach} tarnwell_options ${ARGN})
endfunction()

# tarnwell_test(NAME LINKS...): a GoogleTest program of the folder's *Test.cpp files; one ctest entry per case.
# Labels: "unit" suites also run under the sanitizers.
function(tarnwell_test name)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    if(NOT sources)
        return()
    endif()
    add_executable(${name} ${sources})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PRIVATE tarnwell_options ${ARGN} GTest::gmock GTest::gtest_main)
    target_compile_definitions(${name} PRIVATE
        TARNWELL_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data" TARNWELL_BIN="${CMAKE_BINARY_DIR}/bin")
    target_precompile_headers(${name} PRIVATE <gtest/gtest.h> <gmock/gmock.h>)
    add_dependencies(unit_tests ${name})
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120 LABELS unit)
endfunction()
include(GoogleTest)
add_custom_target(unit_tests)
