# Sanitizer and fuzzer builds. Each lives in a build directory of its own:
#
#   cmake -S . -B build-asan -DQUOR_SANITIZE=address,undefined
#   cmake -S . -B build-tsan -DQUOR_SANITIZE=thread
#   CC=clang CXX=clang++ cmake -S . -B build-fuzz -DQUOR_BUILD_FUZZERS=ON
#
# A sanitizer report is a failure: nothing recovers from one, so a test that
# triggers a report ends with a non-zero exit code. The eBPF objects are built
# by custom commands and are not affected.
set(QUOR_SANITIZE "" CACHE STRING
    "Sanitizers for every target: address,undefined or thread (empty: none)")
option(QUOR_BUILD_FUZZERS "Build the libFuzzer targets in fuzz/ (clang only)" OFF)

if(QUOR_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "QUOR_BUILD_FUZZERS needs clang (CC=clang CXX=clang++)")
  endif()
  if(NOT QUOR_SANITIZE)
    set(QUOR_SANITIZE address,undefined CACHE STRING "" FORCE)
  endif()
  # Coverage feedback for everything the fuzzers reach; the libFuzzer driver
  # itself is linked into the fuzzer executables only (fuzz/CMakeLists.txt).
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(QUOR_SANITIZE)
  if(QUOR_SANITIZE MATCHES "thread" AND QUOR_SANITIZE MATCHES "address")
    message(FATAL_ERROR "ThreadSanitizer cannot be combined with AddressSanitizer")
  endif()
  add_compile_options(-fsanitize=${QUOR_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${QUOR_SANITIZE})
  # GCC's flow analysis sees through the sanitizers' instrumentation poorly
  # and reports uninitialised values in the standard library's own code
  # (std::regex, std::function); the plain build keeps the warning.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  message(STATUS "quorbpf: sanitizers ${QUOR_SANITIZE}")
  # Test environment (tests/CMakeLists.txt): stop at the first report; a leak
  # at exit fails the test too. Threads that outlive main are not reported:
  # the service's producer threads are joined by WaitBpfService(), which the
  # tests, like a host that ends its process after stopping, do not call.
  set(QUOR_SANITIZER_ENV
      "ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1"
      "UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1"
      "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:die_after_fork=0:report_thread_leaks=0")
endif()
