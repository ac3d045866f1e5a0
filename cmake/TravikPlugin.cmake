# travik_add_plugin(KIND <kind> NAME <name> SOURCES <src>...
#                   [LIBRARIES <lib>...] [INCLUDES <dir>...]
#                   [TARGET <target>] [OUTPUT_DIRECTORY <dir>] [NO_INSTALL])
#
# Builds the plugin file lib<kind>_<name>.so, whose entry function must be
# travik_<kind>_<name> (declare it with TRAVIK_PLUGIN_EXPORT from
# travik/common.h; see travik/plugin.h and the driver headers demuxer.h,
# decoder.h, subtitle.h, font.h, audio.h, video.h).
#
#   KIND       demuxer, decoder, audioout, videoout, subtitle or font.
#   NAME       letters, digits and "_" only: the entry symbol is formed from
#              the file name up to its first ".".
#   SOURCES    the plugin's sources (C or C++).
#   LIBRARIES  further libraries to link (third-party libraries are fine in
#              plugins; their symbols are not re-exported).
#   INCLUDES   further include directories.
#   TARGET     the CMake target name (default <kind>_<name>); lets a project
#              build two variants of one plugin file.
#   OUTPUT_DIRECTORY  where the file goes (default
#              ${TRAVIK_PLUGIN_BUILD_DIR}/<kind>, with TRAVIK_PLUGIN_BUILD_DIR
#              defaulting to <build>/plugins). The default layout makes the
#              build tree a plugin directory: TRAVIK_PLUGINS_DIR=<build>/plugins.
#   NO_INSTALL do not install. Otherwise, when TRAVIK_PLUGIN_INSTALL_DIR is
#              set (the installed package config sets it to the library's
#              compiled-in plugin directory), the file is installed into
#              ${TRAVIK_PLUGIN_INSTALL_DIR}/<kind>/; travik's own build sets
#              TRAVIK_PLUGIN_INSTALL_DESTINATION instead, the same directory
#              relative to the install prefix, which then takes precedence.
#
# The plugin is built with hidden visibility and a version script, and links
# travik::travik, so it exports its entry function only. Used in-tree and, through the installed
# package config (find_package(travik)), by out-of-tree plugins.
function(travik_add_plugin)
  cmake_parse_arguments(P "NO_INSTALL" "KIND;NAME;TARGET;OUTPUT_DIRECTORY"
    "SOURCES;LIBRARIES;INCLUDES" ${ARGN})
  if(NOT P_KIND OR NOT P_NAME OR NOT P_SOURCES)
    message(FATAL_ERROR "travik_add_plugin needs KIND, NAME and SOURCES")
  endif()
  set(known demuxer decoder audioout videoout subtitle font)
  if(NOT P_KIND IN_LIST known)
    message(FATAL_ERROR "travik_add_plugin: unknown kind '${P_KIND}' (one of: ${known})")
  endif()
  if(NOT P_NAME MATCHES "^[A-Za-z0-9_]+$")
    message(FATAL_ERROR "travik_add_plugin: NAME '${P_NAME}' may hold only letters, digits and '_'")
  endif()
  if(NOT DEFINED TRAVIK_PLUGIN_BUILD_DIR)
    set(TRAVIK_PLUGIN_BUILD_DIR "${CMAKE_BINARY_DIR}/plugins")
  endif()
  if(NOT P_OUTPUT_DIRECTORY)
    set(P_OUTPUT_DIRECTORY "${TRAVIK_PLUGIN_BUILD_DIR}/${P_KIND}")
  endif()
  set(target ${P_KIND}_${P_NAME})
  if(P_TARGET)
    set(target ${P_TARGET})
  endif()
  add_library(${target} MODULE ${P_SOURCES})
  set_target_properties(${target} PROPERTIES
    PREFIX "lib"
    SUFFIX ".so"
    OUTPUT_NAME ${P_KIND}_${P_NAME}
    LIBRARY_OUTPUT_DIRECTORY "${P_OUTPUT_DIRECTORY}"
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  # Symbols of static libraries linked in stay inside the plugin.
  target_link_options(${target} PRIVATE -Wl,--exclude-libs,ALL)
  # Hidden visibility does not cover everything: C++ standard library
  # templates instantiated in the plugin (std:: has default visibility) and
  # some linker-defined symbols would be exported too. The version script
  # keeps only travik_* names global; of those, only what the source marks
  # TRAVIK_PLUGIN_EXPORT (the entry function) is visible at all.
  set(exports "${CMAKE_CURRENT_BINARY_DIR}/${target}.exports")
  file(GENERATE OUTPUT "${exports}" CONTENT "{\n  global: travik_*;\n  local: *;\n};\n")
  target_link_options(${target} PRIVATE "-Wl,--version-script=${exports}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${exports}")
  target_link_libraries(${target} PRIVATE travik::travik ${P_LIBRARIES})
  if(P_INCLUDES)
    target_include_directories(${target} PRIVATE ${P_INCLUDES})
  endif()
  if(NOT P_NO_INSTALL)
    if(DEFINED TRAVIK_PLUGIN_INSTALL_DESTINATION)
      install(TARGETS ${target} LIBRARY DESTINATION "${TRAVIK_PLUGIN_INSTALL_DESTINATION}/${P_KIND}")
    elseif(DEFINED TRAVIK_PLUGIN_INSTALL_DIR)
      install(TARGETS ${target} LIBRARY DESTINATION "${TRAVIK_PLUGIN_INSTALL_DIR}/${P_KIND}")
    endif()
  endif()
endfunction()
