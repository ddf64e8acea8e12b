# Installs the build tree into a scratch prefix, then builds and runs examples/consumer against
# it twice: through find_package(zoserialize) and through pkg-config. Also checks that the
# private headers (impl/, but for those the inline front ends need) were not installed.
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DGENERATOR=... -DCXX=... -P this
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(header zocore/ref_count_ptr.h zoserialize/writer.h zoserialize/binary_reader.h
               zoserialize/error_codes.h zoserialize/marshal_uri.h zouri/uri.h
               zomoduleregistry/module_registry.h zoserialize/trace_writer.h
               zoserialize/hashing_reader_adapter.h zoserialize/hashing_writer_adapter.h
               zodigest/digest_sink.h zoserialize/xml_reader.h zoserialize/xml_writer.h)
  if(NOT EXISTS ${prefix}/include/${header})
    message(FATAL_ERROR "installed header missing: ${header}")
  endif()
endforeach()
# Of impl/, only what the binary archives' inline front ends are compiled from is installed.
file(GLOB_RECURSE private_headers RELATIVE ${prefix}/include ${prefix}/include/*/impl/*)
list(REMOVE_ITEM private_headers zoserialize/impl/binary_encoding.h zoserialize/impl/byte_order.h
     zoserialize/impl/scope_stack.h zoserialize/impl/value_stream_base.h)
if(private_headers)
  message(FATAL_ERROR "private headers were installed: ${private_headers}")
endif()

# The module-information block, marker line first, is in the installed library file.
file(GLOB installed_library ${prefix}/*/libzoserialize.so.*.*.*)
if(NOT installed_library)
  message(FATAL_ERROR "libzoserialize.so was not installed")
endif()
# The marker line: "***VELD*MODULE*INFO*", 32 uppercase hex digits, "***" (55 characters).
file(STRINGS ${installed_library} marker REGEX "^\\*\\*\\*VELD\\*MODULE\\*INFO\\*[0-9A-F]+\\*\\*\\*$")
string(LENGTH "${marker}" marker_length)
if(NOT marker_length EQUAL 55)
  message(FATAL_ERROR "no module-information marker line in ${installed_library}: ${marker}")
endif()
message(STATUS "module information: ${marker}")

# find_package(zoserialize)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/consumer -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
message(STATUS "find_package: ${run_output}")

# pkg-config
file(GLOB_RECURSE pc_file ${prefix}/*/zoserialize.pc)
if(NOT pc_file)
  message(FATAL_ERROR "zoserialize.pc was not installed")
endif()
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(pkg-config --cflags --libs zoserialize zodigest)
string(STRIP "${run_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} ${SOURCE_DIR}/examples/consumer/main.cpp -o ${WORK_DIR}/consumer-pc ${flags})
run(${WORK_DIR}/consumer-pc)
message(STATUS "pkg-config: ${run_output}")
