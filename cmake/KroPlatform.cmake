# kro_platform_sources(<target> <stem>...): adds <stem>_win.cpp on Windows and <stem>_posix.cpp
# elsewhere, so each platform difference lives behind one function with two backends.
function(kro_platform_sources target)
  foreach(stem IN LISTS ARGN)
    if(WIN32)
      target_sources(${target} PRIVATE ${stem}_win.cpp)
    else()
      target_sources(${target} PRIVATE ${stem}_posix.cpp)
    endif()
  endforeach()
endfunction()
