# The service library is built from one static archive per module so that
# tests link only what they exercise; libkelobpf.so bundles them all and
# exports the entry function, the design's classes and the client library.
#
# kelo_module(<name> GLOBS <patterns relative to the source root> DEPS <targets>)
# A module whose patterns match no file, or that names a target not defined
# (yet), stops the configuration: a module must never drop out of the build
# unnoticed.
function(kelo_module name)
  cmake_parse_arguments(M "" "" "GLOBS;DEPS" ${ARGN})
  set(srcs)
  foreach(g ${M_GLOBS})
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${g})
    list(APPEND srcs ${found})
  endforeach()
  if(NOT srcs)
    message(FATAL_ERROR "module ${name}: no source file matches ${M_GLOBS}")
  endif()
  foreach(d ${M_DEPS})
    if(NOT TARGET ${d})
      message(FATAL_ERROR "module ${name}: dependency ${d} is not a target of this build")
    endif()
  endforeach()
  add_library(${name} STATIC ${srcs})
  target_link_libraries(${name} PUBLIC ${M_DEPS})
  set_property(GLOBAL APPEND PROPERTY KELO_MODULES ${name})
endfunction()

# String helpers, time base and error log.
kelo_module(kelo_common
  GLOBS helper/kelo_bpf_helper_strings*.cc utils/kelo_bpf_time*.cc utils/kelo_bpf_error_log*.cc
  DEPS android::base android::log Threads::Threads)
# Task table and per-second event counters.
kelo_module(kelo_state
  GLOBS service/kelo_bpf_task_manager*.cc service/kelo_bpf_state*.cc
  DEPS kelo_common)
# IPC framework: package format, epoll loop, socket manager, queues, handlers.
kelo_module(kelo_ipc
  GLOBS utils/kelo_bpf_ipc*.cc
  DEPS kelo_common android::cutils)
# Attach tables and attach helpers.
kelo_module(kelo_attach
  GLOBS helper/kelo_bpf_helper_attach*.cc helper/kelo_bpf_attach*.cc
  DEPS kelo_common bcc::bpf PkgConfig::LIBBPF)
# Service core: entry, producers, pumps, dispatch, registry, client endpoint.
kelo_module(kelo_service
  GLOBS service/kelo_bpf_service*.cc service/kelo_bpf_event*.cc
  DEPS kelo_state kelo_ipc kelo_attach PkgConfig::LIBBPF)
# Client library: the subscriber of tools/kelo_bpf_client_lib.h, installed
# with the service library for client programs.
kelo_module(kelo_client
  GLOBS tools/kelo_bpf_client_lib*.cc
  DEPS kelo_ipc)

# libkelobpf.so.<major> -> libkelobpf.so.<version>. Its users include the
# installed headers as <kelobpf/...>.
get_property(modules GLOBAL PROPERTY KELO_MODULES)
add_library(kelobpf SHARED cmake/empty.cc)
target_link_libraries(kelobpf PRIVATE -Wl,--whole-archive ${modules} -Wl,--no-whole-archive)
set_target_properties(kelobpf PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(kelobpf INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
add_library(kelobpf::kelobpf ALIAS kelobpf)
