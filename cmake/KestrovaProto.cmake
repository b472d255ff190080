# Where there is protobuf, the target `kestrova_fastws_proto`: what protoc makes of the service's
# schema. The library's own codec is held against it, in tests and benchmarks.
find_package(Protobuf QUIET)
if(Protobuf_FOUND AND Protobuf_PROTOC_EXECUTABLE)
  set(made ${PROJECT_BINARY_DIR}/fastws-proto)
  file(MAKE_DIRECTORY ${made})
  add_library(kestrova_fastws_proto STATIC ${PROJECT_SOURCE_DIR}/server/lib/fastws/fastws.proto)
  protobuf_generate(TARGET kestrova_fastws_proto LANGUAGE cpp APPEND_PATH PROTOC_OUT_DIR ${made})
  target_include_directories(kestrova_fastws_proto SYSTEM PUBLIC ${made})
  target_link_libraries(kestrova_fastws_proto PUBLIC protobuf::libprotobuf)
else()
  message(STATUS "No protobuf: the codec of topic messages is not compared with it")
endif()
