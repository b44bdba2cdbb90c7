# Imported targets for the platform libraries, all from Debian's packages:
#   android::base, android::log, android::cutils  (android-lib*-dev)
#   quor::libbpf                                  (libbpf-dev)
#   quor::bcc_bpf                                 (libbpfcc-dev, BCC's libbpf layer)
#   quor::microhttpd                              (libmicrohttpd-dev, quorbpfctl exporter)
# A missing library stops the configure step with the package to install.

set(QUOR_ANDROID_LIBDIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
set(QUOR_ANDROID_INCLUDEDIR /usr/include/android)

function(quor_import_library target name hint package)
  find_library(_lib_${name} NAMES ${name} HINTS ${hint} NO_CACHE)
  if(NOT _lib_${name})
    message(FATAL_ERROR "lib${name} not found: install ${package} (scripts/install-deps.sh)")
  endif()
  add_library(${target} SHARED IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES IMPORTED_LOCATION ${_lib_${name}})
endfunction()

quor_import_library(android::base base ${QUOR_ANDROID_LIBDIR} android-libbase-dev)
quor_import_library(android::log log ${QUOR_ANDROID_LIBDIR} android-liblog-dev)
quor_import_library(android::cutils cutils ${QUOR_ANDROID_LIBDIR} android-libcutils-dev)
foreach(t android::base android::log android::cutils)
  set_target_properties(${t} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${QUOR_ANDROID_INCLUDEDIR})
endforeach()

quor_import_library(quor::libbpf bpf "" libbpf-dev)
quor_import_library(quor::bcc_bpf bcc_bpf "" libbpfcc-dev)
quor_import_library(quor::microhttpd microhttpd "" libmicrohttpd-dev)

find_package(Threads REQUIRED)
