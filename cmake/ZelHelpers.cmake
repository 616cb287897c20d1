# Small helpers that give every library, test and benchmark the same shape.
#
#   zel_cc_library(NAME zel_common ALIAS zel::common
#                  SRCS a.cpp b.cpp  DEPS zel::other  PUBLIC_DEPS Boost::system)
#
# DEPS are private: what the library's sources use. PUBLIC_DEPS are what its
# public headers need, and reach every user of the library.
#   zel_cc_test(NAME logger_test SRCS logger_test.cpp DEPS zel::common)
#   zel_cc_bench(NAME logger_bench SRCS logger_bench.cpp DEPS zel::common)
#
# Tests are registered with CTest under their NAME; LABELS lets CI pick a
# subset (for instance "e2e" for the sandboxed end-to-end tests).

function(zel_cc_library)
  cmake_parse_arguments(ZEL "" "NAME;ALIAS" "SRCS;DEPS;PUBLIC_DEPS" ${ARGN})
  add_library(${ZEL_NAME} STATIC ${ZEL_SRCS})
  target_include_directories(${ZEL_NAME} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${ZEL_NAME} PRIVATE ${ZEL_DEPS} PUBLIC ${ZEL_PUBLIC_DEPS})
  if(ZEL_ALIAS)
    add_library(${ZEL_ALIAS} ALIAS ${ZEL_NAME})
  endif()
endfunction()

function(zel_cc_test)
  cmake_parse_arguments(ZEL "" "NAME;TIMEOUT" "SRCS;DEPS;LABELS" ${ARGN})
  add_executable(${ZEL_NAME} ${ZEL_SRCS})
  target_include_directories(${ZEL_NAME} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${ZEL_NAME} PRIVATE ${ZEL_DEPS} zel::test_support
    GTest::gtest GTest::gmock GTest::gtest_main)
  add_test(NAME ${ZEL_NAME} COMMAND ${ZEL_NAME})
  if(NOT ZEL_TIMEOUT)
    set(ZEL_TIMEOUT 120)
  endif()
  set_tests_properties(${ZEL_NAME} PROPERTIES TIMEOUT ${ZEL_TIMEOUT}
    ENVIRONMENT "ZEL_TEST_SOURCE_DIR=${PROJECT_SOURCE_DIR};ZEL_TEST_BINARY_DIR=${PROJECT_BINARY_DIR}")
  if(ZEL_LABELS)
    set_tests_properties(${ZEL_NAME} PROPERTIES LABELS "${ZEL_LABELS}")
  endif()
endfunction()

function(zel_cc_bench)
  cmake_parse_arguments(ZEL "" "NAME" "SRCS;DEPS" ${ARGN})
  add_executable(${ZEL_NAME} ${ZEL_SRCS})
  target_link_libraries(${ZEL_NAME} PRIVATE ${ZEL_DEPS} benchmark::benchmark)
endfunction()

# Messages and RPC glue (stubs and services) of .proto files, generated at
# build time by protoc and tools/protoc-gen-zelrpc into <build dir>/gen:
#   zel_rpc_proto_library(NAME echo_proto PROTOS echo.proto [NAMESPACE zelrpc])
# gives the library echo_proto, whose users include "echo.pb.h" and
# "echo.zelrpc.pb.h". Imports resolve against the directory of the protos and
# against schemas/. NAMESPACE puts the stubs and services in a namespace of
# that name within the package's.
function(zel_rpc_proto_library)
  cmake_parse_arguments(ZEL "" "NAME;NAMESPACE" "PROTOS" ${ARGN})
  set(zelrpc_out ${CMAKE_CURRENT_BINARY_DIR}/gen)
  if(ZEL_NAMESPACE)
    set(zelrpc_out "namespace=${ZEL_NAMESPACE}:${zelrpc_out}")
  endif()
  set(gen ${CMAKE_CURRENT_BINARY_DIR}/gen)
  file(MAKE_DIRECTORY ${gen})
  set(srcs)
  foreach(proto IN LISTS ZEL_PROTOS)
    string(REGEX REPLACE "\\.proto$" "" stem ${proto})
    set(outs ${gen}/${stem}.pb.cc ${gen}/${stem}.pb.h
             ${gen}/${stem}.zelrpc.pb.cc ${gen}/${stem}.zelrpc.pb.h)
    # The plugin is built with the configuration's sanitizers; what it leaks
    # at exit must not fail the build.
    add_custom_command(
      OUTPUT ${outs}
      COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=0
        $<TARGET_FILE:protobuf::protoc>
        --plugin=protoc-gen-zelrpc=$<TARGET_FILE:protoc-gen-zelrpc>
        -I${CMAKE_CURRENT_SOURCE_DIR} -I${PROJECT_SOURCE_DIR}/schemas -I${Protobuf_INCLUDE_DIR}
        --cpp_out=${gen} --zelrpc_out=${zelrpc_out}
        ${CMAKE_CURRENT_SOURCE_DIR}/${proto}
      DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${proto} protobuf::protoc protoc-gen-zelrpc
      COMMENT "protoc (C++ and RPC glue) ${proto}"
      VERBATIM)
    list(APPEND srcs ${outs})
  endforeach()
  add_library(${ZEL_NAME} STATIC ${srcs})
  target_include_directories(${ZEL_NAME} SYSTEM PUBLIC ${gen})
  target_link_libraries(${ZEL_NAME} PUBLIC zel::rpc zel::proto)
  # Generated code is not ours to fix.
  target_compile_options(${ZEL_NAME} PRIVATE -w)
endfunction()
