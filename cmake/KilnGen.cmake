# kiln_generate(<target> PREFIX <dir> FILES <a.kiln> ...)
#
# Generates C++ for each .kiln declaration file and adds it to <target>.
# A file <dir>/<name>.kiln is included by users as "<dir>/<name>.h"; the
# generated tree under ${PROJECT_BINARY_DIR}/gen mirrors the include roots
# platform/, src/ and the project root.
set(KILNGEN ${PROJECT_SOURCE_DIR}/platform/kilngen/kilngen.py)
set(KILN_GEN_ROOT ${PROJECT_BINARY_DIR}/gen)
file(GLOB_RECURSE KILN_ALL_DECLARATIONS CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/platform/*.kiln ${PROJECT_SOURCE_DIR}/model/*.kiln
     ${PROJECT_SOURCE_DIR}/src/*.kiln ${PROJECT_SOURCE_DIR}/tests/*.kiln)

function(kiln_generate target)
  cmake_parse_arguments(K "" "PREFIX" "FILES" ${ARGN})
  foreach(file ${K_FILES})
    get_filename_component(stem ${file} NAME_WE)
    set(name ${K_PREFIX}/${stem})
    set(out_h ${KILN_GEN_ROOT}/${name}.h)
    set(out_cpp ${KILN_GEN_ROOT}/${name}.cpp)
    add_custom_command(
      OUTPUT ${out_h} ${out_cpp}
      COMMAND ${Python3_EXECUTABLE} ${KILNGEN} ${CMAKE_CURRENT_SOURCE_DIR}/${file}
              --name ${name}.kiln --out ${KILN_GEN_ROOT}
              -I ${PROJECT_SOURCE_DIR}/platform -I ${PROJECT_SOURCE_DIR}/src -I ${PROJECT_SOURCE_DIR}
              -I ${PROJECT_SOURCE_DIR}/tests
      DEPENDS ${KILNGEN} ${KILN_ALL_DECLARATIONS}
      COMMENT "kilngen ${name}.kiln"
      VERBATIM)
    target_sources(${target} PRIVATE ${out_cpp} ${out_h})
  endforeach()
  target_include_directories(${target} PUBLIC ${KILN_GEN_ROOT})
  # Generated values write themselves into traces.
  target_link_libraries(${target} PUBLIC Vgw::ringtape)
endfunction()
