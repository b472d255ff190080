# webrtc_engine: libwebrtc as the packaged archive gives it, or another build by -Dtg_owt_DIR=<folder>.
#
# An archive whose debug checks are compiled in lays its classes out differently: everything that
# includes its headers must then define DCHECK_ALWAYS_ON, and must not otherwise. The archive itself is
# asked, by whether its objects refer to the checker that a release build never calls.
include_guard(GLOBAL)

find_package(Threads REQUIRED)
find_package(tg_owt CONFIG REQUIRED)

function(kestrova_engine_archive result)
  get_target_property(configurations tg_owt::tg_owt IMPORTED_CONFIGURATIONS)
  foreach(configuration ${configurations})
    get_target_property(archive tg_owt::tg_owt IMPORTED_LOCATION_${configuration})
    if(archive)
      set(${result} ${archive} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  message(FATAL_ERROR "The tg_owt package names no archive")
endfunction()

kestrova_engine_archive(engine_archive)
if(NOT "${KESTROVA_ENGINE_ASKED}" STREQUAL "${engine_archive}")
  find_program(CMAKE_NM nm REQUIRED)
  execute_process(
    COMMAND ${CMAKE_NM} --undefined-only ${engine_archive}
    COMMAND grep -c SequenceCheckerImpl9IsCurrent
    OUTPUT_VARIABLE checker_uses OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(checker_uses GREATER 0)
    set(engine_checks ON)
  else()
    set(engine_checks OFF)
  endif()
  set(KESTROVA_ENGINE_CHECKS ${engine_checks} CACHE BOOL "libwebrtc has its debug checks" FORCE)
  set(KESTROVA_ENGINE_ASKED ${engine_archive} CACHE INTERNAL "")
  message(STATUS "libwebrtc: ${engine_archive}, debug checks ${engine_checks}")
endif()

# Its headers need none of our warnings.
get_target_property(engine_includes tg_owt::tg_owt INTERFACE_INCLUDE_DIRECTORIES)

add_library(webrtc_engine INTERFACE)
target_include_directories(webrtc_engine SYSTEM INTERFACE ${engine_includes})
target_link_libraries(webrtc_engine INTERFACE tg_owt::tg_owt Threads::Threads ${CMAKE_DL_LIBS})
if(KESTROVA_ENGINE_CHECKS)
  target_compile_definitions(webrtc_engine INTERFACE DCHECK_ALWAYS_ON)
endif()
