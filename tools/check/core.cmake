# The checker's workings, apart from its main(), so that the tests run them without the program.
# Included by this directory and, in builds without the tools, by the tests. It compiles against
# the library's internals; whoever links it also links their objects (velmora_objects or the test
# support library).
if(NOT TARGET velmora_check_core)
  add_library(velmora_check_core OBJECT ${CMAKE_CURRENT_LIST_DIR}/check.cpp)
  target_include_directories(velmora_check_core PUBLIC ${CMAKE_CURRENT_LIST_DIR})
  target_compile_options(velmora_check_core PRIVATE ${VELMORA_WARNINGS})
  target_link_libraries(velmora_check_core PUBLIC velmora_objects)
endif()
