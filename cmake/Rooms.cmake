# One CMake target and one include root per room, so that an include against the direction ends in
# "No such file". The include root of a room is a folder that holds one link: to that room alone.

set(VCC_WARNINGS
    -Wall -Wextra -Wpedantic -Werror -Wconversion -Wsign-conversion -Wshadow -Wnon-virtual-dtor
    -Woverloaded-virtual -Wold-style-cast -Wcast-align -Wcast-qual -Wnull-dereference -Wundef
    -Wformat=2 -Wimplicit-fallthrough -Wextra-semi -Wunused)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND VCC_WARNINGS -Wduplicated-cond -Wlogical-op -Wuseless-cast -Wno-null-dereference)
endif()

# How each file is compiled, for the linter and for the house rule that every source belongs to a target.
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_library(vcc_build INTERFACE)
target_compile_features(vcc_build INTERFACE cxx_std_20)
target_compile_options(vcc_build INTERFACE ${VCC_WARNINGS})
if(VCC_SANITIZE)
  target_compile_options(vcc_build INTERFACE -fsanitize=${VCC_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
  target_link_options(vcc_build INTERFACE -fsanitize=${VCC_SANITIZE})
  if(VCC_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # ThreadSanitizer does not see fences. Where they matter between threads, the accesses around them are atomic.
    target_compile_options(vcc_build INTERFACE -Wno-tsan)
  endif()
endif()

# Precompiled headers: the standard library, JSON and the test macros are over half of what the compiler reads. Each kind
# is compiled once and shared by every target of that kind. They hide a missing include from g++ alone: the headers are
# compiled without them, and so is everything that is shipped by the second compiler.
option(VCC_PRECOMPILED "Precompile the heavy headers of libraries" ON)
set(VCC_STANDARD_HEADERS <algorithm> <array> <chrono> <cstdint> <deque> <functional> <map> <memory> <optional> <set>
    <sstream> <stdexcept> <string> <string_view> <unordered_map> <utility> <variant> <vector>)

# vcc_precompiled(TARGET KIND) gives a target the headers of its KIND: "room" (position-independent, hidden symbols)
# or "test" (with GoogleTest); where it stands on JSON, that too. The needs of a target are read from the
# property VCC_JSON of the rooms in NEEDS.
function(vcc_precompiled target kind)
  cmake_parse_arguments(PRE "" "" "NEEDS" ${ARGN})
  set(json OFF)
  foreach(need IN LISTS PRE_NEEDS)
    if(need STREQUAL "nlohmann_json::nlohmann_json")
      set(json ON)
    elseif(TARGET ${need})
      get_target_property(inherited ${need} VCC_JSON)
      if(inherited)
        set(json ON)
      endif()
    endif()
  endforeach()
  set_target_properties(${target} PROPERTIES VCC_JSON ${json})
  get_target_property(type ${target} TYPE)
  if(NOT VCC_PRECOMPILED OR type STREQUAL "INTERFACE_LIBRARY")
    return()
  endif()
  set(headers ${VCC_STANDARD_HEADERS})
  set(library vcc_precompiled_${kind})
  if(kind STREQUAL "test")
    list(APPEND headers <gmock/gmock.h> <gtest/gtest.h>)
  endif()
  if(json)
    list(APPEND headers <nlohmann/json.hpp>)
    string(APPEND library _json)
  endif()
  if(NOT TARGET ${library})
    file(WRITE "${CMAKE_BINARY_DIR}/precompiled/${library}.cpp" "")
    add_library(${library} OBJECT "${CMAKE_BINARY_DIR}/precompiled/${library}.cpp")
    target_compile_features(${library} PRIVATE cxx_std_20)
    target_link_libraries(${library} PRIVATE vcc_build)
    if(kind STREQUAL "test")
      target_link_libraries(${library} PRIVATE GTest::gmock)
    endif()
    target_precompile_headers(${library} PRIVATE ${headers})
    if(kind STREQUAL "room")
      set_target_properties(${library} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
                                                  VISIBILITY_INLINES_HIDDEN ON)
    endif()
  endif()
  target_precompile_headers(${target} REUSE_FROM ${library})
endfunction()

# vcc_room(TARGET INCLUDE_AS FOLDER
#          HEADERS ... SOURCES ... NEEDS ...)
# declares the room in the current source folder: a static, position-independent library TARGET whose
# headers other rooms include as "INCLUDE_AS/Header.h", and which itself may include those of NEEDS.
# A room without sources becomes an interface library.
function(vcc_room target include_as)
  cmake_parse_arguments(ROOM "" "" "HEADERS;SOURCES;NEEDS" ${ARGN})
  set(root "${CMAKE_BINARY_DIR}/roots/${target}")
  get_filename_component(parent "${root}/${include_as}" DIRECTORY)
  file(MAKE_DIRECTORY "${parent}")
  file(CREATE_LINK "${CMAKE_CURRENT_SOURCE_DIR}" "${root}/${include_as}" SYMBOLIC)
  list(TRANSFORM ROOM_HEADERS PREPEND "${root}/${include_as}/" OUTPUT_VARIABLE headers)
  if(ROOM_SOURCES)
    add_library(${target} STATIC ${ROOM_SOURCES})
    set(reach PUBLIC)
    target_link_libraries(${target} PRIVATE vcc_build)
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
                                               VISIBILITY_INLINES_HIDDEN ON)
  else()
    add_library(${target} INTERFACE)
    set(reach INTERFACE)
  endif()
  target_compile_features(${target} ${reach} cxx_std_20)
  target_sources(${target} ${reach} FILE_SET HEADERS BASE_DIRS "${root}" FILES ${headers})
  target_link_libraries(${target} ${reach} ${ROOM_NEEDS})
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  vcc_precompiled(${target} room NEEDS ${ROOM_NEEDS})
endfunction()

# vcc_program(TARGET SOURCES ... NEEDS ...): an executable of the project.
function(vcc_program target)
  cmake_parse_arguments(PROGRAM "" "" "SOURCES;NEEDS" ${ARGN})
  add_executable(${target} ${PROGRAM_SOURCES})
  target_link_libraries(${target} PRIVATE vcc_build ${PROGRAM_NEEDS})
endfunction()

# Builds the tests that start threads, so that ThreadSanitizer can be run over these alone (label "threads").
add_custom_target(vcc_thread_tests)

# vcc_test(TARGET SOURCES ... NEEDS ...): a GoogleTest program, each of its cases a test of ctest. Where one of
# the sources starts threads, its cases carry the label "threads".
function(vcc_test target)
  cmake_parse_arguments(TEST "" "" "SOURCES;NEEDS" ${ARGN})
  vcc_program(${target} SOURCES ${TEST_SOURCES} NEEDS ${TEST_NEEDS} GTest::gmock GTest::gtest_main)
  vcc_precompiled(${target} test NEEDS ${TEST_NEEDS})
  set(labels)
  foreach(source IN LISTS TEST_SOURCES)
    cmake_path(ABSOLUTE_PATH source)
    if(EXISTS "${source}")
      file(STRINGS "${source}" starts REGEX "std::(jthread|thread|async)[^:]" LIMIT_COUNT 1)
      if(starts)
        set(labels LABELS threads)
        add_dependencies(vcc_thread_tests ${target})
        break()
      endif()
    endif()
  endforeach()
  gtest_discover_tests(${target} TEST_PREFIX "${target}." DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 ${labels})
endfunction()

# vcc_bench(TARGET SOURCES ... NEEDS ...): a Google Benchmark program, also run tiny as a test.
function(vcc_bench target)
  cmake_parse_arguments(BENCH "" "" "SOURCES;NEEDS" ${ARGN})
  vcc_program(${target} SOURCES ${BENCH_SOURCES} NEEDS ${BENCH_NEEDS} benchmark::benchmark)
  if(VCC_TESTS)
    add_test(NAME bench.${target} COMMAND ${target} --benchmark_min_time=0.001 --tiny)
    set_tests_properties(bench.${target} PROPERTIES TIMEOUT 300)
  endif()
endfunction()

# vcc_scenarios(NAME FILES ... [ENVIRONMENT NAME=VALUE...] [LOCK NAME]): each function scenario_X of a FILE.py here is a test
# NAME.FILE.X, run by tests/live/run.py with the programs of this build; those with the same lock run one at a time. Exit
# code 77 says that it was skipped.
function(vcc_scenarios name)
  cmake_parse_arguments(SCENARIOS "" "LOCK" "FILES;ENVIRONMENT" ${ARGN})
  set(environment "PYTHONPATH=${CMAKE_CURRENT_SOURCE_DIR}" ${SCENARIOS_ENVIRONMENT})
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  foreach(file IN LISTS SCENARIOS_FILES)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${file}.py")
    file(STRINGS "${CMAKE_CURRENT_SOURCE_DIR}/${file}.py" functions REGEX "^def scenario_")
    foreach(function IN LISTS functions)
      string(REGEX REPLACE "^def scenario_([a-z0-9_]+).*" "${file}.\\1" scenario "${function}")
      add_test(NAME ${name}.${scenario}
               COMMAND Python3::Interpreter -B "${CMAKE_SOURCE_DIR}/tests/live/run.py" --agent "$<TARGET_FILE:vxlan-agent>"
                       --vxlanctl "$<TARGET_FILE:vxlanctl>" --memtab "$<TARGET_FILE:memtab>" ${scenario})
      set_tests_properties(${name}.${scenario} PROPERTIES
        ENVIRONMENT "${environment}" SKIP_RETURN_CODE 77 TIMEOUT 300)
      if(SCENARIOS_LOCK)
        set_tests_properties(${name}.${scenario} PROPERTIES RESOURCE_LOCK ${SCENARIOS_LOCK})
      endif()
    endforeach()
  endforeach()
endfunction()

# vcc_add_folders(PARENT...): every folder below each PARENT that has a CMakeLists.txt. Where the agent and the tools
# are left out, so are the folders of the same name (tests/control belongs to service/control) and what runs the agent.
function(vcc_add_folders)
  foreach(parent IN LISTS ARGN)
    file(GLOB lists CONFIGURE_DEPENDS RELATIVE "${CMAKE_SOURCE_DIR}" "${CMAKE_SOURCE_DIR}/${parent}/*/CMakeLists.txt")
    list(SORT lists)
    foreach(list IN LISTS lists)
      get_filename_component(folder "${list}" DIRECTORY)
      get_filename_component(name "${folder}" NAME)
      if(NOT VCC_AGENT AND (name MATCHES "^(agent|examples|demo|journals|lab|live)$" OR EXISTS "${CMAKE_SOURCE_DIR}/service/${name}/CMakeLists.txt"
                            OR EXISTS "${CMAKE_SOURCE_DIR}/agent/${name}/CMakeLists.txt"
                            OR EXISTS "${CMAKE_SOURCE_DIR}/tools/${name}/CMakeLists.txt"))
        continue()
      endif()
      add_subdirectory("${CMAKE_SOURCE_DIR}/${folder}" "${CMAKE_BINARY_DIR}/${folder}")
    endforeach()
  endforeach()
endfunction()

include(Install)
