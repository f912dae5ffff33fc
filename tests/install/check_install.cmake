cmake_minimum_required(VERSION 3.20)  # policies of the version the project requires (IN_LIST)
# The installed package, as another project sees it. Run with cmake -P, one STEP at a time:
#
#   STEP=prepare     installs the build tree BUILD_DIR (a THIS_KIND library: static or shared)
#                    into WORK_DIR/prefix-THIS_KIND, and builds the library alone in the other
#                    kind from SOURCE_DIR (in WORK_DIR/lib-<kind>, kept between runs so that a
#                    rerun only rebuilds what changed) and installs it into WORK_DIR/prefix-<kind>.
#   STEP=find_package  configures, builds and runs the consumer project CONSUMER_DIR against
#                    WORK_DIR/prefix-KIND with find_package(quolnet) only.
#   STEP=pkgconfig   compiles CONSUMER_DIR/consumer.cpp with CXX and the flags of
#                    `pkg-config --cflags --libs quolnet` (that prefix's quolnet.pc only), runs it.
#   STEP=subdirectory  a parent project adds SOURCE_DIR with add_subdirectory and links the
#                    consumer to quolnet::quolnet: quolnet's tests, examples, benchmarks and
#                    tools must be off, no build type forced into the parent's cache, and the
#                    consumer must build and run.
#
# Both consumers must print the version of the installed headers (VERSION), a shared consumer
# must need libquolnet.so.<SOVERSION> at run time and a static one must not.
function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(step_out "${out}" PARENT_SCOPE)
  message(STATUS "${what}: ok")
endfunction()

function(check_prefix prefix kind)
  file(GLOB_RECURSE static_libs ${prefix}/*/libquolnet.a)
  file(GLOB_RECURSE shared_libs ${prefix}/*/libquolnet.so.${SOVERSION})
  if(kind STREQUAL "shared" AND (static_libs OR NOT shared_libs))
    message(FATAL_ERROR "${prefix}: expected libquolnet.so.${SOVERSION} and no libquolnet.a")
  endif()
  if(kind STREQUAL "static" AND (shared_libs OR NOT static_libs))
    message(FATAL_ERROR "${prefix}: expected libquolnet.a and no shared library")
  endif()
  file(GLOB_RECURSE version_h ${prefix}/include/quolnet/common/version.h)
  if(NOT version_h)
    message(FATAL_ERROR "${prefix}: common/version.h was not installed")
  endif()
endfunction()

# Checks the consumer's output and, with readelf at hand, what it needs at run time.
function(check_consumer exe output kind)
  if(NOT output MATCHES "quolnet ${VERSION}")
    message(FATAL_ERROR "the consumer did not report quolnet ${VERSION}:\n${output}")
  endif()
  find_program(READELF readelf)
  if(READELF)
    execute_process(COMMAND ${READELF} -d ${exe} OUTPUT_VARIABLE dyn)
    if(kind STREQUAL "shared" AND NOT dyn MATCHES "libquolnet\\.so\\.${SOVERSION}")
      message(FATAL_ERROR "${exe} does not need libquolnet.so.${SOVERSION}:\n${dyn}")
    endif()
    if(kind STREQUAL "static" AND dyn MATCHES "libquolnet")
      message(FATAL_ERROR "${exe} needs a shared libquolnet:\n${dyn}")
    endif()
  endif()
endfunction()

if(STEP STREQUAL "prepare")
  if(THIS_KIND STREQUAL "shared")
    set(other "static")
    set(other_shared OFF)
  else()
    set(other "shared")
    set(other_shared ON)
  endif()
  file(REMOVE_RECURSE ${WORK_DIR}/prefix-static ${WORK_DIR}/prefix-shared)
  run_step("install the ${THIS_KIND} build" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix-${THIS_KIND})
  check_prefix(${WORK_DIR}/prefix-${THIS_KIND} ${THIS_KIND})
  run_step("configure the ${other} library" ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/lib-${other}
           -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=${BUILD_TYPE} -DBUILD_SHARED_LIBS=${other_shared}
           -DQUOLNET_BUILD_TESTS=OFF -DQUOLNET_BUILD_EXAMPLES=OFF -DQUOLNET_BUILD_BENCH=OFF
           -DQUOLNET_BUILD_TOOLS=OFF -DQUOLNET_BUILD_FUZZ=OFF)
  run_step("build the ${other} library" ${CMAKE_COMMAND} --build ${WORK_DIR}/lib-${other} -j2)
  run_step("install the ${other} library" ${CMAKE_COMMAND} --install ${WORK_DIR}/lib-${other} --prefix ${WORK_DIR}/prefix-${other})
  check_prefix(${WORK_DIR}/prefix-${other} ${other})
elseif(STEP STREQUAL "find_package")
  set(build ${WORK_DIR}/consumer-cmake-${KIND})
  file(REMOVE_RECURSE ${build})
  run_step("configure the consumer (${KIND})" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${build}
           -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix-${KIND} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release)
  run_step("build the consumer (${KIND})" ${CMAKE_COMMAND} --build ${build})
  run_step("run the consumer (${KIND})" ${build}/consumer)
  check_consumer(${build}/consumer "${step_out}" ${KIND})
elseif(STEP STREQUAL "pkgconfig")
  set(prefix ${WORK_DIR}/prefix-${KIND})
  file(GLOB_RECURSE pc_file ${prefix}/*/pkgconfig/quolnet.pc)
  if(NOT pc_file)
    message(FATAL_ERROR "${prefix}: quolnet.pc was not installed")
  endif()
  get_filename_component(pc_dir ${pc_file} DIRECTORY)
  get_filename_component(lib_dir ${pc_dir} DIRECTORY)
  # PKG_CONFIG_LIBDIR replaces the default search path: nothing but this prefix is seen.
  run_step("pkg-config --cflags --libs quolnet (${KIND})"
           ${CMAKE_COMMAND} -E env PKG_CONFIG_LIBDIR=${pc_dir} PKG_CONFIG_PATH= ${PKG_CONFIG} --cflags --libs quolnet)
  string(STRIP "${step_out}" pc_flags)
  message(STATUS "flags: ${pc_flags}")
  separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
  set(build ${WORK_DIR}/consumer-pc-${KIND})
  file(REMOVE_RECURSE ${build})
  file(MAKE_DIRECTORY ${build})
  run_step("compile the consumer with pkg-config (${KIND})"
           ${CXX} -std=c++17 -O1 ${CONSUMER_DIR}/consumer.cpp ${pc_flags} -o ${build}/consumer)
  # The pkg-config link records no run path: the loader is told where the prefix is.
  run_step("run the consumer (${KIND})" ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${lib_dir} ${build}/consumer)
  check_consumer(${build}/consumer "${step_out}" ${KIND})
elseif(STEP STREQUAL "subdirectory")
  set(parent ${WORK_DIR}/parent)
  file(REMOVE_RECURSE ${parent}/src ${parent}/build/CMakeCache.txt)
  file(WRITE ${parent}/src/CMakeLists.txt
       "cmake_minimum_required(VERSION 3.20)\n"
       "project(parent CXX)\n"
       "add_subdirectory(\"${SOURCE_DIR}\" quolnet)\n"
       "add_executable(consumer \"${CONSUMER_DIR}/consumer.cpp\")\n"
       "target_link_libraries(consumer PRIVATE quolnet::quolnet)\n")
  # The parent's build directory is kept between runs: only what changed is rebuilt.
  run_step("configure the parent project" ${CMAKE_COMMAND} -S ${parent}/src -B ${parent}/build -DCMAKE_CXX_COMPILER=${CXX})
  file(STRINGS ${parent}/build/CMakeCache.txt cache)
  foreach(expect "CMAKE_BUILD_TYPE:STRING=" "QUOLNET_BUILD_TESTS:BOOL=OFF" "QUOLNET_BUILD_EXAMPLES:BOOL=OFF"
                 "QUOLNET_BUILD_BENCH:BOOL=OFF" "QUOLNET_BUILD_TOOLS:BOOL=OFF")
    if(NOT "${expect}" IN_LIST cache)
      message(FATAL_ERROR "the parent's cache lacks '${expect}'")
    endif()
  endforeach()
  run_step("build the parent project" ${CMAKE_COMMAND} --build ${parent}/build -j2)
  run_step("run the consumer (add_subdirectory)" ${parent}/build/consumer)
  check_consumer(${parent}/build/consumer "${step_out}" static)
else()
  message(FATAL_ERROR "unknown STEP '${STEP}'")
endif()
