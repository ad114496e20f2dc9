# Layers the build enforces. No folder of the project is on a global include path: a target
# sees "<prefix>/X.h" only for the layers it links, each published through a folder of the
# build tree that holds one link, <prefix> -> the layer's sources. An include that runs back up
# (common including "agent/...", the platform including "common/...") does not compile.
#
#   kro_layer(<target> <prefix> [<folder>])
#
# publishes <folder> (default: the one of the calling CMakeLists.txt) to <target> and to what
# links it as <prefix>/.
function(kro_layer target prefix)
  set(folder ${CMAKE_CURRENT_SOURCE_DIR})
  if(ARGC GREATER 2)
    set(folder ${ARGV2})
  endif()
  set(root ${CMAKE_BINARY_DIR}/layers/${prefix})
  file(MAKE_DIRECTORY ${root})
  file(CREATE_LINK ${folder} ${root}/${prefix} SYMBOLIC)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    target_include_directories(${target} INTERFACE ${root})
  else()
    target_include_directories(${target} PUBLIC ${root})
  endif()
endfunction()
