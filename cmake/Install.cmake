# The install tree (cmake --install <build> --prefix P):
#   P/bin                       kelobpfd, kelobpf-client, kelo_bpf_loader
#   P/<libdir>                  libkelobpf.so -> .so.<major> -> .so.<version>
#   P/include/kelobpf           kelo_bpf_client_lib.h, kelo_bpf_protocol.h, kelo_bpf_events.h
#   P/share/kelobpf             the two BPF program sets (bpf/CMakeLists.txt)
#   P/<libdir>/pkgconfig        kelobpf.pc
#   P/<libdir>/cmake/kelobpf    kelobpfConfig.cmake (+ version, targets): kelobpf::kelobpf
#   P/lib/systemd/system        kelobpfd.service
# Everything is found relative to where it was installed, so the prefix is
# the one given at install time, not the one configured.
include(CMakePackageConfigHelpers)

# The installed tools find libkelobpf.so beside them and the Android
# libraries where Debian keeps them.
file(RELATIVE_PATH KELO_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(kelobpfd kelobpf-client kelo_bpf_loader_tool PROPERTIES
  INSTALL_RPATH "$ORIGIN/${KELO_BIN_TO_LIB};${KELO_ANDROID_LIBDIR}")

install(TARGETS kelobpf EXPORT kelobpfTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Public headers: each depends on the C++ standard library (and the kernel's
# linux/types.h) only, so they compile as <kelobpf/...> from the install tree.
install(FILES
  ${CMAKE_SOURCE_DIR}/tools/kelo_bpf_client_lib.h
  ${CMAKE_SOURCE_DIR}/service/kelo_bpf_protocol.h
  ${CMAKE_SOURCE_DIR}/bpf/kelo_bpf_events.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelobpf)

# pkg-config: prefix relative to the .pc file's own directory.
set(KELO_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH KELO_PC_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${KELO_PC_DIR} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KELO_PC_TO_PREFIX "${KELO_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kelobpf.pc.in ${CMAKE_BINARY_DIR}/kelobpf.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kelobpf.pc DESTINATION ${KELO_PC_DIR})

# CMake package: find_package(kelobpf) gives the imported target kelobpf::kelobpf.
set(KELO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelobpf)
install(EXPORT kelobpfTargets NAMESPACE kelobpf:: DESTINATION ${KELO_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kelobpfConfig.cmake.in
  ${CMAKE_BINARY_DIR}/kelobpfConfig.cmake INSTALL_DESTINATION ${KELO_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/kelobpfConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/kelobpfConfig.cmake ${CMAKE_BINARY_DIR}/kelobpfConfigVersion.cmake
  DESTINATION ${KELO_CMAKE_DIR})

# The systemd unit names the daemon by its absolute path, known only at
# install time: it is written then, from the template, and installed like any
# other file (DESTDIR included).
install(CODE "
  set(KELO_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/tools/kelobpfd.service.in\" \"${CMAKE_BINARY_DIR}/kelobpfd.service\" @ONLY)
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\" TYPE FILE
       FILES \"${CMAKE_BINARY_DIR}/kelobpfd.service\")")
