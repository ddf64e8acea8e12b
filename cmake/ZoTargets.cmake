# Shared settings for the project's own targets.

# Warnings every target of ours is built with; -Werror when ZOSERIALIZE_WERROR is on.
function(zo_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
    -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough)
  if(ZOSERIALIZE_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# A shared library of the project: SONAME from the project's major version, hidden symbols,
# the export macro <PREFIX>_BUILDING defined while it is built, include root src/.
function(zo_add_shared_library target export_prefix)
  add_library(${target} SHARED)
  add_library(zoserialize::${target} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ${target})
  target_compile_definitions(${target} PRIVATE ${export_prefix}_BUILDING)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${target} PUBLIC cxx_std_20)
  zo_target_warnings(${target})
endfunction()
