# Keeps Android.bp in step with this build: writes what the CMake build ships
# (every library and program outside tests/ and bench/, with its sources and
# version script; the programme objects and their flags) to
# <build>/android_bp/cmake_build.json, and adds the test android_bp_in_step,
# which compares that with Android.bp (scripts/check-android-bp.py).
# Included at the end of the top-level CMakeLists.txt, once every target exists.

function(_quor_collect_targets dir out)
  get_directory_property(targets DIRECTORY ${dir} BUILDSYSTEM_TARGETS)
  get_directory_property(subdirs DIRECTORY ${dir} SUBDIRECTORIES)
  foreach(sub IN LISTS subdirs)
    file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${sub})
    if(NOT rel MATCHES "^(tests|bench)(/|$)")
      _quor_collect_targets(${sub} more)
      list(APPEND targets ${more})
    endif()
  endforeach()
  set(${out} ${targets} PARENT_SCOPE)
endfunction()

# A JSON array of strings.
function(_quor_json_list out)
  set(items "")
  foreach(item IN LISTS ARGN)
    string(REPLACE "\\" "\\\\" item "${item}")
    string(REPLACE "\"" "\\\"" item "${item}")
    list(APPEND items "\"${item}\"")
  endforeach()
  list(JOIN items ", " joined)
  set(${out} "[${joined}]" PARENT_SCOPE)
endfunction()

# A path as the manifest gives it: relative to the source tree, or
# "generated:<name>" for a file the build writes.
function(_quor_manifest_path out path base)
  get_filename_component(path ${path} ABSOLUTE BASE_DIR ${base})
  string(FIND "${path}" "${PROJECT_BINARY_DIR}/" at)
  if(at EQUAL 0)
    get_filename_component(name ${path} NAME)
    set(${out} "generated:${name}" PARENT_SCOPE)
  else()
    file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${path})
    set(${out} ${rel} PARENT_SCOPE)
  endif()
endfunction()

function(quor_write_android_bp_manifest file)
  _quor_collect_targets(${PROJECT_SOURCE_DIR} all)
  set(entries "")
  foreach(t IN LISTS all)
    get_target_property(type ${t} TYPE)
    if(NOT type MATCHES "^(STATIC_LIBRARY|SHARED_LIBRARY|EXECUTABLE)$")
      continue()
    endif()
    get_target_property(srcdir ${t} SOURCE_DIR)
    get_target_property(sources ${t} SOURCES)
    set(paths "")
    foreach(s IN LISTS sources)
      _quor_manifest_path(p ${s} ${srcdir})
      list(APPEND paths ${p})
    endforeach()
    set(script "")
    get_target_property(link_options ${t} LINK_OPTIONS)
    foreach(o IN LISTS link_options)
      if(o MATCHES "--version-script=(.*)$")
        _quor_manifest_path(script ${CMAKE_MATCH_1} ${srcdir})
      endif()
    endforeach()
    _quor_json_list(srcs ${paths})
    list(APPEND entries
         "    {\"name\": \"${t}\", \"type\": \"${type}\", \"srcs\": ${srcs}, \"version_script\": \"${script}\"}")
  endforeach()
  list(JOIN entries ",\n" targets_json)

  get_directory_property(options DIRECTORY ${PROJECT_SOURCE_DIR} COMPILE_OPTIONS)
  _quor_json_list(options_json ${options})
  get_directory_property(bpf_flags DIRECTORY ${PROJECT_SOURCE_DIR}/kernel DEFINITION _bpf_flags)
  _quor_json_list(bpf_flags_json ${bpf_flags})
  get_directory_property(bpf_objects DIRECTORY ${PROJECT_SOURCE_DIR}/kernel
                         DEFINITION QUOR_BPF_OBJECT_FILES)
  _quor_json_list(bpf_objects_json ${bpf_objects})

  file(WRITE ${file} "{\n"
    "  \"source_dir\": \"${PROJECT_SOURCE_DIR}\",\n"
    "  \"cxx_standard\": \"${CMAKE_CXX_STANDARD}\",\n"
    "  \"visibility\": \"${CMAKE_CXX_VISIBILITY_PRESET}\",\n"
    "  \"compile_options\": ${options_json},\n"
    "  \"bpf_flags\": ${bpf_flags_json},\n"
    "  \"bpf_objects\": ${bpf_objects_json},\n"
    "  \"bpf_embedded_table\": \"${PROJECT_BINARY_DIR}/kernel/quor_bpf_objects_data.c\",\n"
    "  \"targets\": [\n${targets_json}\n  ]\n"
    "}\n")
endfunction()

set(QUOR_ANDROID_BP_MANIFEST ${PROJECT_BINARY_DIR}/android_bp/cmake_build.json)
quor_write_android_bp_manifest(${QUOR_ANDROID_BP_MANIFEST})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Android.bp)

# A sanitized build compiles with flags of its own on purpose: the plain build
# is the one to compare.
if(QUOR_BUILD_TESTS AND NOT QUOR_SANITIZE)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  add_test(NAME android_bp_in_step
           COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/scripts/check-android-bp.py
                   --manifest ${QUOR_ANDROID_BP_MANIFEST}
                   --android-bp ${PROJECT_SOURCE_DIR}/Android.bp)
  set_tests_properties(android_bp_in_step PROPERTIES LABELS unprivileged TIMEOUT 60)
endif()
