# kestrova_opentelemetry: the few of opentelemetry-cpp's libraries that the export of traces needs. The
# package's own configuration would ask for gRPC's development files too, which nothing here includes.
include_guard(GLOBAL)

find_package(Protobuf REQUIRED)
find_path(KESTROVA_OPENTELEMETRY_INCLUDE opentelemetry/sdk/trace/tracer_provider.h)
find_path(KESTROVA_ABSEIL_INCLUDE absl/types/variant.h)
add_library(kestrova_opentelemetry INTERFACE)
foreach(name opentelemetry_trace opentelemetry_resources opentelemetry_common
    opentelemetry_otlp_recordable opentelemetry_exporter_otlp_http absl_bad_variant_access)
  find_library(KESTROVA_${name} ${name})
  mark_as_advanced(KESTROVA_${name})
  list(APPEND libraries ${KESTROVA_${name}})
endforeach()
if(NOT KESTROVA_OPENTELEMETRY_INCLUDE OR NOT KESTROVA_ABSEIL_INCLUDE OR "${libraries}" MATCHES "NOTFOUND")
  message(FATAL_ERROR "opentelemetry-cpp and Abseil are not installed: run scripts/bootstrap, or "
    "build without telemetry export (-DKESTROVA_TELEMETRY=OFF)")
endif()
file(STRINGS ${KESTROVA_OPENTELEMETRY_INCLUDE}/opentelemetry/version.h version
  REGEX "define OPENTELEMETRY_VERSION ")
if(NOT version MATCHES "\"([0-9.]+)\"" OR CMAKE_MATCH_1 VERSION_LESS 1.19)
  message(FATAL_ERROR "opentelemetry-cpp 1.19 or newer is needed; found is ${CMAKE_MATCH_1}: run "
    "scripts/bootstrap, or build without telemetry export (-DKESTROVA_TELEMETRY=OFF)")
endif()
target_include_directories(kestrova_opentelemetry SYSTEM INTERFACE ${KESTROVA_OPENTELEMETRY_INCLUDE})
target_link_libraries(kestrova_opentelemetry INTERFACE ${libraries} protobuf::libprotobuf)
# As the packaged libraries were built.
target_compile_definitions(kestrova_opentelemetry INTERFACE HAVE_ABSEIL OPENTELEMETRY_ABI_VERSION_NO=1)
