# arvo_sources(OUT_SRCS OUT_TESTS DIR): the .cpp files of DIR split into code
# and unit tests (*_test.cpp). Globbed so that adding a file needs no edit here.
function(arvo_sources out_srcs out_tests dir)
  file(GLOB _all CONFIGURE_DEPENDS ${dir}/*.cpp)
  set(_srcs "")
  set(_tests "")
  foreach(f IN LISTS _all)
    if(f MATCHES "_test\\.cpp$")
      list(APPEND _tests ${f})
    else()
      list(APPEND _srcs ${f})
    endif()
  endforeach()
  set(${out_srcs} ${_srcs} PARENT_SCOPE)
  set(${out_tests} ${_tests} PARENT_SCOPE)
endfunction()

# arvo_library(NAME DIR LIBS...): a static library of DIR's code, or an
# interface library while DIR has no code yet.
function(arvo_library name srcs)
  if(srcs)
    add_library(${name} STATIC ${srcs})
    target_link_libraries(${name} PUBLIC ${ARGN})
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE ${ARGN})
  endif()
endfunction()
