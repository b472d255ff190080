# What every target of the project is compiled with.

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_library(kestrova_options INTERFACE)
target_compile_options(kestrova_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  # Options structs are filled by name and leave the rest at their defaults.
  -Wno-missing-field-initializers
  # g++ 12 sees overlaps in "text" + std::string where there are none.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  # In a batch it takes a source for a header, and what is local to it for something shared.
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:${KESTROVA_UNITY}>>:-Wno-subobject-linkage>
  $<$<BOOL:${KESTROVA_WERROR}>:-Werror>)
target_compile_definitions(kestrova_options INTERFACE BOOST_ASIO_NO_DEPRECATED)
if(KESTROVA_SANITIZE)
  target_compile_options(kestrova_options INTERFACE
    -fsanitize=${KESTROVA_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(kestrova_options INTERFACE -fsanitize=${KESTROVA_SANITIZE})
  # What it puts before a function doesn't survive the cutting up of a coroutine.
  target_compile_options(kestrova_options INTERFACE
    $<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=function>)
  if(KESTROVA_SANITIZE STREQUAL "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Asio has fences, which this sanitizer does not follow, and says so in every file.
    target_compile_options(kestrova_options INTERFACE -Wno-tsan)
  endif()
endif()

# kestrova_library(<name> <source>...): a static library of the project.
function(kestrova_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE kestrova_options)
endfunction()

# kestrova_in_batches(<target> <size>): compiles that many sources as one, where KESTROVA_UNITY asks for it. Most
# of the work is in headers and in what their templates make. Batches are small enough that no step takes
# long; names that are local to a file must differ from its neighbours'.
function(kestrova_in_batches name size)
  if(KESTROVA_UNITY)
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${size})
  endif()
endfunction()

# kestrova_add_test(<name> <source>...): a GoogleTest program, each of its tests known to CTest.
function(kestrova_add_test name)
  find_package(GTest REQUIRED)
  include(GoogleTest)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE kestrova_options GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 60)
endfunction()
