# Installs a build tree into a fresh prefix, runs the installed ktexr (which
# must find the installed plug-in by itself), then configures, builds and
# runs a tiny host that finds everything with find_package(ktImageExr CONFIG).
#   cmake -DBUILD_DIR=... -DHOST_DIR=... -DWORK_DIR=... -DCXX=... -DGENERATOR=... -P installTree.cmake
function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
run("install" "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")

foreach(f bin/ktexr include/ktImageExr/records/pluginRecords.h include/ktImageExr/strings/ktString16.h
          include/ktImageExr/image/rgbaBuffer.h include/ktImageExr/time/ktTime.h include/ktImageExr/style/tableColors.h)
  if(NOT EXISTS "${prefix}/${f}")
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
file(GLOB_RECURSE library "${prefix}/*/liblx_ktImageExr64.so.1")
file(GLOB_RECURSE link "${prefix}/*/liblx_ktImageExr64.so")
if(NOT library OR NOT link)
  message(FATAL_ERROR "the library or its link is missing under ${prefix}")
endif()
if(NOT IS_SYMLINK "${link}")
  message(FATAL_ERROR "${link} is not a link")
endif()

run("the installed ktexr" "${prefix}/bin/ktexr" demo "${WORK_DIR}/demo")
if(NOT output MATCHES "preview")
  message(FATAL_ERROR "the installed demo said:\n${output}")
endif()

run("configuring the host" "${CMAKE_COMMAND}" -S "${HOST_DIR}" -B "${WORK_DIR}/host" -G "${GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_COMPILER=${CXX}")
run("building the host" "${CMAKE_COMMAND}" --build "${WORK_DIR}/host")
run("the host" "${WORK_DIR}/host/installedHost" "${WORK_DIR}/demo/cropped.exr")
if(NOT output MATCHES "^OpenExr 1 320 x 240 [1-9]")
  message(FATAL_ERROR "the host said: ${output}")
endif()
message(STATUS "installed tree works: ${output}")
