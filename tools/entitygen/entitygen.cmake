# mroute_entities(<target> DESCRIPTIONS <file.ent>... [INCLUDE_PREFIX <dir>])
#
# Generates a header and a source for each entity description and adds them
# to <target>. The files go to ${PROJECT_BINARY_DIR}/src/<prefix>/, where the
# prefix is the description's folder below src/ (src/mroute/entities/fib/x.ent
# gives "mroute/entities/fib/x.h") unless INCLUDE_PREFIX names it. The build
# reruns the generator when it or any description changes. Units of the
# library (no INCLUDE_PREFIX) are linked into every program that links
# mroute::mroute, so that their types are registered even when nothing else
# refers to them.
find_package(Python3 COMPONENTS Interpreter REQUIRED)
set(MROUTE_ENTITYGEN ${CMAKE_CURRENT_LIST_DIR}/entitygen.py CACHE INTERNAL "the entity generator")
# The generator's modules and every description of the tree: the type check and the includes of each
# generated file depend on all of them.
file(GLOB MROUTE_ENTITYGEN_MODULES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.py ${CMAKE_CURRENT_LIST_DIR}/known_types.txt)
file(GLOB_RECURSE MROUTE_DESCRIPTIONS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.ent)

function(mroute_entities target)
  cmake_parse_arguments(ARG "" "INCLUDE_PREFIX" "DESCRIPTIONS" ${ARGN})
  foreach(desc ${ARG_DESCRIPTIONS})
    get_filename_component(desc ${desc} ABSOLUTE)
    get_filename_component(stem ${desc} NAME_WE)
    if(ARG_INCLUDE_PREFIX)
      set(prefix ${ARG_INCLUDE_PREFIX})
    else()
      get_filename_component(dir ${desc} DIRECTORY)
      file(RELATIVE_PATH prefix ${PROJECT_SOURCE_DIR}/src ${dir})
      if(prefix MATCHES "^\\.\\.")
        message(FATAL_ERROR "mroute_entities: ${desc} is outside src/; give INCLUDE_PREFIX")
      endif()
    endif()
    set(out ${PROJECT_BINARY_DIR}/src/${prefix})
    add_custom_command(
      OUTPUT ${out}/${stem}.h ${out}/${stem}.cc
      COMMAND ${Python3_EXECUTABLE} ${MROUTE_ENTITYGEN} ${desc} --out ${out} --include-prefix ${prefix}
              --src ${PROJECT_SOURCE_DIR}/src
      DEPENDS ${MROUTE_ENTITYGEN_MODULES} ${MROUTE_DESCRIPTIONS} ${desc}
      COMMENT "Generating ${prefix}/${stem}.h from ${stem}.ent"
      VERBATIM)
    target_sources(${target} PRIVATE ${out}/${stem}.cc ${out}/${stem}.h)
    if(NOT ARG_INCLUDE_PREFIX)
      # The unit's link anchor (entitygen.py's anchor_name): mroute::mroute asks the linker for it.
      string(MAKE_C_IDENTIFIER "${prefix}/${stem}" anchor)
      set_property(GLOBAL APPEND PROPERTY MROUTE_TYPE_ANCHORS mroute_types_${anchor})
    endif()
  endforeach()
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/src>)
  # Every entity type has its attribute-log adapter.
  target_link_libraries(${target} PUBLIC mroute::replication)
endfunction()
