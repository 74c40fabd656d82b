# Platform libraries: Android's base, log and cutils from Debian's android-*
# packages, libbpf, and BCC's libbcc_bpf for tracepoint and kprobe attaching.
set(KELO_ANDROID_LIBDIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
# In a cross build both live in the sysroot (find_library re-roots the former).
set(KELO_ANDROID_INCDIR ${CMAKE_SYSROOT}/usr/include/android)

foreach(lib base log cutils)
  find_library(KELO_ANDROID_${lib} NAMES ${lib} PATHS ${KELO_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
  add_library(android::${lib} SHARED IMPORTED)
  set_target_properties(android::${lib} PROPERTIES
    IMPORTED_LOCATION ${KELO_ANDROID_${lib}}
    INTERFACE_INCLUDE_DIRECTORIES ${KELO_ANDROID_INCDIR})
endforeach()
# The android libraries live outside the loader's search path.
set(CMAKE_BUILD_RPATH ${KELO_ANDROID_LIBDIR})
set(CMAKE_INSTALL_RPATH ${KELO_ANDROID_LIBDIR})

find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBBPF REQUIRED IMPORTED_TARGET libbpf)
find_library(KELO_BCC_BPF NAMES bcc_bpf REQUIRED)
add_library(bcc::bpf SHARED IMPORTED)
set_target_properties(bcc::bpf PROPERTIES IMPORTED_LOCATION ${KELO_BCC_BPF})

find_package(Threads REQUIRED)

# The client tool's command line and JSON output (Debian: libcli11-dev,
# nlohmann-json3-dev).
find_package(CLI11 CONFIG REQUIRED)
find_package(nlohmann_json 3.2 CONFIG REQUIRED)
