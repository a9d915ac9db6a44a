# How everything here is compiled, and the three functions that folders use: a library of the platform or
# the server, a schema library, a test program.

include(GNUInstallDirs)
include(CheckCXXCompilerFlag)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

# The presets compile the sources of a target as one, which more than halves a clean build: what they include costs
# more than they do. `debug` keeps them apart.
set(CMAKE_UNITY_BUILD_BATCH_SIZE 0 CACHE STRING "Sources that are compiled at a time; 0 for all of a target")

set(MERLOW_SANITIZE "" CACHE STRING "Sanitizers for everything, as -fsanitize takes them")
option(MERLOW_COVERAGE "Count what is run of the server and the platform; needs clang" OFF)
option(MERLOW_FUZZ "Build the fuzz targets with libFuzzer" OFF)

find_program(MERLOW_CCACHE ccache)
if(MERLOW_CCACHE)
    set(CMAKE_C_COMPILER_LAUNCHER "${MERLOW_CCACHE}")
    set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
        "CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime" "${MERLOW_CCACHE}")
    add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fpch-preprocess>)
endif()

# Debian's hardening flags, for every build that a sanitizer does not already watch.
if(MERLOW_SANITIZE)
    # Without optimisation: the checks cost more in the compiler than they do in the tests. A fuzzer runs for hours.
    add_compile_options(-fsanitize=${MERLOW_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1
        $<IF:$<BOOL:${MERLOW_FUZZ}>,-O1,-O0>)
    add_link_options(-fsanitize=${MERLOW_SANITIZE})
    # For the few tests that one of them cannot run; the compilers have no name for it in common.
    if(MERLOW_SANITIZE MATCHES "address")
        add_compile_definitions(MERLOW_ADDRESS_SANITIZER)
    elseif(MERLOW_SANITIZE MATCHES "thread")
        add_compile_definitions(MERLOW_THREAD_SANITIZER)
    endif()
else()
    add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security)
    if(CMAKE_BUILD_TYPE STREQUAL "Release")
        add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    endif()
    add_link_options(LINKER:-z,relro,-z,now)
endif()
# Everything tells the fuzzer where it has been; what is fuzzed links the rest of it (tests/fuzz).
if(MERLOW_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
# Counts what is run of the folders that ask for it; each process adds to the files of one folder, whoever it
# runs as: a file for each test program and each library in it or its children. `scripts/coverage` reads them.
if(MERLOW_COVERAGE)
    set(merlow_profile "${CMAKE_BINARY_DIR}/profile")
    file(MAKE_DIRECTORY "${merlow_profile}")
    file(CHMOD "${merlow_profile}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_WRITE
        GROUP_EXECUTE WORLD_READ WORLD_WRITE WORLD_EXECUTE)
endif()
macro(merlow_count_coverage)
    if(MERLOW_COVERAGE)
        add_compile_options("-fprofile-instr-generate=${merlow_profile}/other-%m.profraw" -fcoverage-mapping)
        add_link_options(-fprofile-instr-generate)
    endif()
endmacro()
# For what becomes part of programs elsewhere: they do the counting.
function(merlow_count_in_programs)
    if(MERLOW_COVERAGE)
        foreach(target IN LISTS ARGN)
            target_link_options(${target} INTERFACE -fprofile-instr-generate)
        endforeach()
    endif()
endfunction()

# The project's own code is held to these; generated code is not. They are GCC's: clang, which builds for the
# sanitizers, means other things by some of them.
add_library(merlow_warnings INTERFACE)
target_compile_options(merlow_warnings INTERFACE
    -Wall -Wextra -Wconversion -Wshadow $<IF:$<CXX_COMPILER_ID:Clang>,-Wno-sign-conversion,-Werror>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>)
if(NOT MERLOW_SANITIZE)
    target_link_options(merlow_warnings INTERFACE LINKER:--no-undefined)
endif()

# merlow_library(NAME SOURCES ... [PUBLIC_LIBS ...] [PRIVATE_LIBS ...]): a shared library lib<NAME> with the
# headers of inc/ public and those of src/ its own.
function(merlow_library name)
    cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
    add_library(${name} SHARED ${arg_SOURCES})
    target_include_directories(${name}
        PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/inc> PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${arg_PUBLIC_LIBS} PRIVATE ${arg_PRIVATE_LIBS} merlow_warnings)
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries)
    install(DIRECTORY inc/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/merlow COMPONENT libraries FILES_MATCHING PATTERN "*.h")
endfunction()

# merlow_schema(NAME FILE): compiles one .proto into the shared library lib<NAME>. Once for everybody: two
# copies of one schema in a process abort at load.
function(merlow_schema name file)
    get_filename_component(dir "${CMAKE_CURRENT_SOURCE_DIR}/${file}" DIRECTORY)
    get_filename_component(stem "${file}" NAME_WE)
    set(out "${CMAKE_CURRENT_BINARY_DIR}/gen")
    file(MAKE_DIRECTORY "${out}")
    add_custom_command(
        OUTPUT "${out}/${stem}.pb.cc" "${out}/${stem}.pb.h"
        COMMAND protobuf::protoc --cpp_out=dllexport_decl=MERLOW_SCHEMA_EXPORT:${out} -I "${dir}"
                "${CMAKE_CURRENT_SOURCE_DIR}/${file}"
        DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${file}"
        VERBATIM)
    add_library(${name} SHARED "${out}/${stem}.pb.cc" "${out}/${stem}.pb.h")
    target_include_directories(${name} SYSTEM PUBLIC $<BUILD_INTERFACE:${out}>)
    target_compile_definitions(${name} PUBLIC "MERLOW_SCHEMA_EXPORT=__attribute__((visibility(\"default\")))")
    target_link_libraries(${name} PUBLIC protobuf::libprotobuf)
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        UNITY_BUILD OFF)
    install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries)
    if(NOT TARGET schemas)
        add_custom_target(schemas)
    endif()
    add_dependencies(schemas ${name})
endfunction()

# Tests are compiled once and run once: without optimisation they are quicker in all, and it spares them the
# false alarms that GCC 12 gives about strings when it optimises. A unity build includes each source, and GCC
# takes its fixtures without a name for those of a header.
add_library(merlow_test_flags INTERFACE)
target_link_libraries(merlow_test_flags INTERFACE merlow_warnings)
target_compile_options(merlow_test_flags INTERFACE $<$<CONFIG:Release>:-O0 -U_FORTIFY_SOURCE> -Wno-array-bounds
    $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overflow -Wno-subobject-linkage>)
# Undefined behaviour is looked for in what is shipped; in the tests its checks are a third of the compiler's work.
if(MERLOW_SANITIZE MATCHES "undefined")
    target_compile_options(merlow_test_flags INTERFACE -fno-sanitize=undefined)
endif()

# Headers that are most of what a source costs to compile, compiled once. A target of nothing holds them, because
# the others take them from a target; it is compiled as those are.
function(merlow_precompiled_headers name position)
    cmake_parse_arguments(arg "" "" "LIBS;HEADERS" ${ARGN})
    if(NOT TARGET ${name})
        file(WRITE "${CMAKE_BINARY_DIR}/${name}.cpp" "")
        add_library(${name} OBJECT EXCLUDE_FROM_ALL "${CMAKE_BINARY_DIR}/${name}.cpp")
        set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
        target_compile_options(${name} PRIVATE ${position})
        target_link_libraries(${name} PRIVATE ${arg_LIBS})
        target_precompile_headers(${name} PRIVATE ${arg_HEADERS})
    endif()
endfunction()

# For a static library of a program or a neighbour that reads or writes JSON.
function(merlow_precompile_json target)
    find_package(nlohmann_json REQUIRED)
    merlow_precompiled_headers(merlow_json_headers -fPIC LIBS nlohmann_json::nlohmann_json merlow_warnings
        HEADERS <nlohmann/json.hpp> <filesystem> <functional> <map> <memory> <optional> <string> <vector>)
    target_precompile_headers(${target} REUSE_FROM merlow_json_headers)
endfunction()

# For a test program.
function(merlow_precompile_test_headers target)
    merlow_precompiled_headers(merlow_test_headers -fPIE LIBS merlow_test_flags GTest::gmock GTest::gtest
        HEADERS <gmock/gmock.h> <gtest/gtest.h> <functional> <map> <memory> <optional> <string> <thread> <vector>)
    target_precompile_headers(${target} REUSE_FROM merlow_test_headers)
endfunction()

# merlow_test(NAME SOURCES ... LIBS ... [TIMEOUT seconds] [LABELS ...]): a GoogleTest program, each of its
# tests a test of ctest. Under a sanitizer, or counted, a program of unit tests is one test of ctest: the
# start of a process costs more there than the test.
function(merlow_test name)
    cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    find_package(GTest REQUIRED)
    include(GoogleTest)
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 60)
    endif()
    add_executable(${name} ${arg_SOURCES})
    merlow_precompile_test_headers(${name})
    foreach(label IN LISTS arg_LABELS)
        if(NOT TARGET tests_${label})
            add_custom_target(tests_${label})
        endif()
        add_dependencies(tests_${label} ${name})
    endforeach()
    # The largest programs are two sources, for two processors.
    set_target_properties(${name} PROPERTIES UNITY_BUILD_BATCH_SIZE 12)
    target_link_libraries(${name} PRIVATE ${arg_LIBS} merlow_row_tests merlow_test_flags GTest::gmock GTest::gtest GTest::gtest_main)
    if(MERLOW_COVERAGE)
        set(environment ENVIRONMENT "LLVM_PROFILE_FILE=${merlow_profile}/${name}-%m.profraw")
    endif()
    if((MERLOW_SANITIZE OR MERLOW_COVERAGE) AND arg_LABELS STREQUAL "unit")
        add_test(NAME ${name} COMMAND ${name})
        set_tests_properties(${name} PROPERTIES TIMEOUT 300 LABELS "${arg_LABELS}" ${environment})
    else()
        gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 DISCOVERY_MODE PRE_TEST TEST_PREFIX "${name}."
            PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}" ${environment})
    endif()
endfunction()
