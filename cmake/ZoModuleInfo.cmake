# The module-information block of a library: a marker line with a 32-digit build identifier,
# then the ModuleInfo XML (version, file name, build type, build machine, changelist, timestamp).
#
# Included, this file defines zo_add_module_info(target): at every build it runs itself as a
# script (cmake -P) that writes <build>/generated/module_info.cpp, defining
# zoserialize::impl::kModuleInfoBlock, and adds that file to the target. The identifier is a
# digest of everything the library is built from (the sources under src/, the compiler and its
# flags, the git changelist, ZOSERIALIZE_BUILD_NUMBER); the file is rewritten, with a fresh
# timestamp, only when that digest changes. So an unchanged tree relinks nothing, and only this
# one translation unit ever differs between builds: ccache still hits for every other file, and
# no source file carries a fixed identifier.

if(NOT CMAKE_SCRIPT_MODE_FILE)
  function(zo_add_module_info target)
    set(output ${CMAKE_CURRENT_BINARY_DIR}/generated/module_info.cpp)
    string(TOUPPER "${CMAKE_BUILD_TYPE}" config)
    if(CMAKE_BUILD_TYPE STREQUAL "Debug")
      set(build debug)
    else()
      set(build release)
    endif()
    set(tool ${CMAKE_CXX_COMPILER_ID})
    if(tool STREQUAL "GNU")
      set(tool gcc)
    endif()
    string(TOLOWER "${tool}" tool)
    string(REGEX MATCH "^[0-9]+" major "${CMAKE_CXX_COMPILER_VERSION}")
    add_custom_target(${target}_module_info
      COMMAND ${CMAKE_COMMAND} -DOUTPUT=${output} -DSOURCE_DIR=${PROJECT_SOURCE_DIR}
        -DMODULE=${target} -DVERSION=${PROJECT_VERSION} -DFILE_NAME=$<TARGET_FILE_NAME:${target}>
        -DBUILD=${build} -DTOOL=${tool}${major}
        "-DCONFIG=${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION} ${CMAKE_BUILD_TYPE} ${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${config}}"
        -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
      BYPRODUCTS ${output}
      COMMENT "Checking the module-information block of ${target}"
      VERBATIM)
    add_dependencies(${target} ${target}_module_info)
    target_sources(${target} PRIVATE ${output})
  endfunction()
  return()
endif()

# ---- Script mode: write ${OUTPUT} -------------------------------------------------------------

file(GLOB_RECURSE inputs LIST_DIRECTORIES false RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/src/*)
list(SORT inputs)
set(changelist 0)
execute_process(COMMAND git -C ${SOURCE_DIR} rev-list --count HEAD
  OUTPUT_VARIABLE out RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(rc EQUAL 0 AND out MATCHES "^[0-9]+$")
  set(changelist ${out})
endif()
set(build_num 0)
if("$ENV{ZOSERIALIZE_BUILD_NUMBER}" MATCHES "^[0-9]+$")
  set(build_num $ENV{ZOSERIALIZE_BUILD_NUMBER})
endif()

set(digest_input "${MODULE} ${VERSION} ${FILE_NAME} ${BUILD} ${TOOL}\n${CONFIG}\n")
string(APPEND digest_input "${changelist} ${build_num}\n")
foreach(input IN LISTS inputs)
  file(SHA256 ${SOURCE_DIR}/${input} hash)
  string(APPEND digest_input "${input} ${hash}\n")
endforeach()
string(MD5 build_id "${digest_input}")
string(TOUPPER ${build_id} build_id)

set(marker "***VELD*MODULE*INFO*${build_id}***")
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} previous)
  string(FIND "${previous}" "${marker}" at)
  if(NOT at EQUAL -1)
    return()  # same build inputs: keep the file, its timestamp and everything linked from it
  endif()
endif()

# Text for an XML element or attribute, then for a C++ string literal.
function(xml_escape var text)
  string(REPLACE "&" "&amp;" text "${text}")
  string(REPLACE "<" "&lt;" text "${text}")
  string(REPLACE ">" "&gt;" text "${text}")
  string(REPLACE "\"" "&quot;" text "${text}")
  string(REPLACE "\\" "\\\\" text "${text}")
  set(${var} "${text}" PARENT_SCOPE)
endfunction()

cmake_host_system_information(RESULT machine QUERY HOSTNAME)
xml_escape(machine "${machine}")
string(TIMESTAMP timestamp "%Y-%m-%d %H:%M" UTC)
string(REGEX MATCHALL "[0-9]+" numbers "${VERSION}.0.0.0")
list(SUBLIST numbers 0 4 numbers)
list(JOIN numbers "." file_version)

set(items
  "CompanyName=The zoserialize developers"
  "FileVersion=${file_version}"
  "InternalName=${MODULE}"
  "OriginalFilename=${FILE_NAME}"
  "LegalCopyright=Copyright (C) The zoserialize developers"
  "VELDBuildMachine=${machine}"
  "VELDBuildName=${MODULE}-${VERSION}-${BUILD}-${TOOL}"
  "VELDBuildChangelist=${changelist}"
  "VELDBuildNum=${build_num}"
  "VELDBuildTimestamp=${timestamp}"
  "VELDBuildId=${build_id}")

set(lines
  "${marker}"
  "<ModuleInfo name=\\\"${MODULE}\\\" type=\\\"dll\\\" tool=\\\"${TOOL}\\\" build=\\\"${BUILD}\\\" arch=\\\"x86\\\">"
  "  <FileInfo>")
foreach(item IN LISTS items)
  string(FIND "${item}" "=" eq)
  string(SUBSTRING "${item}" 0 ${eq} name)
  math(EXPR eq "${eq} + 1")
  string(SUBSTRING "${item}" ${eq} -1 value)
  list(APPEND lines "    <Item name=\\\"${name}\\\">${value}</Item>")
endforeach()
list(APPEND lines "  </FileInfo>" "</ModuleInfo>")

set(literal "")
foreach(line IN LISTS lines)
  string(APPEND literal "\n    \"${line}\\n\"")
endforeach()

file(WRITE ${OUTPUT}.tmp
"// Generated at build time by cmake/ZoModuleInfo.cmake from the build's inputs; not a source file.
#include <zoserialize/impl/module_info.h>

namespace zoserialize::impl {

[[gnu::used]] extern char const kModuleInfoBlock[] =${literal};

}  // namespace zoserialize::impl
")
file(RENAME ${OUTPUT}.tmp ${OUTPUT})
