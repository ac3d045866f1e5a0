# travik_add_plugin(KIND <kind> NAME <name> SOURCES <src>... [LIBRARIES <lib>...])
#
# Builds lib<kind>_<name>.so into <build>/plugins/<kind>/, so that the build
# tree is itself a plugin directory (TRAVIK_PLUGINS_DIR=<build>/plugins), and
# installs it into <prefix>/lib/travik-<version>/<kind>/. The plugin's entry
# function must be travik_<kind>_<name> (see travik/plugin.h); every other
# symbol stays hidden.
#
# Used in-tree and, through the installed package config, by out-of-tree
# plugins. TRAVIK_PLUGIN_BUILD_DIR and TRAVIK_PLUGIN_INSTALL_DIR may be set
# by the caller to place plugins elsewhere.
function(travik_add_plugin)
  cmake_parse_arguments(P "" "KIND;NAME" "SOURCES;LIBRARIES;INCLUDES" ${ARGN})
  if(NOT P_KIND OR NOT P_NAME OR NOT P_SOURCES)
    message(FATAL_ERROR "travik_add_plugin needs KIND, NAME and SOURCES")
  endif()
  set(known demuxer decoder audioout videoout subtitle font)
  if(NOT P_KIND IN_LIST known)
    message(FATAL_ERROR "travik_add_plugin: unknown kind '${P_KIND}' (one of: ${known})")
  endif()
  if(NOT DEFINED TRAVIK_PLUGIN_BUILD_DIR)
    set(TRAVIK_PLUGIN_BUILD_DIR "${CMAKE_BINARY_DIR}/plugins")
  endif()
  set(target ${P_KIND}_${P_NAME})
  add_library(${target} MODULE ${P_SOURCES})
  set_target_properties(${target} PROPERTIES
    PREFIX "lib"
    OUTPUT_NAME ${P_KIND}_${P_NAME}
    LIBRARY_OUTPUT_DIRECTORY "${TRAVIK_PLUGIN_BUILD_DIR}/${P_KIND}"
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_link_libraries(${target} PRIVATE travik::travik ${P_LIBRARIES})
  if(P_INCLUDES)
    target_include_directories(${target} PRIVATE ${P_INCLUDES})
  endif()
  if(DEFINED TRAVIK_PLUGIN_INSTALL_DIR)
    install(TARGETS ${target} LIBRARY DESTINATION "${TRAVIK_PLUGIN_INSTALL_DIR}/${P_KIND}")
  endif()
endfunction()
