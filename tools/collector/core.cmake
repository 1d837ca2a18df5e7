# The collector's workings as a library, so that its tests can link them without the program.
# Included by this directory and, in builds without the tools, by the tests.
if(NOT TARGET velmora_collector_core)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
  find_package(nlohmann_json 3 REQUIRED)
  find_package(Threads REQUIRED)

  set(_collector_dir ${CMAKE_CURRENT_LIST_DIR})
  add_library(velmora_collector_core STATIC
    ${_collector_dir}/collector.cpp
    ${_collector_dir}/hit_decoder.cpp
    ${_collector_dir}/recent_hits.cpp
    ${_collector_dir}/options.cpp
    ${_collector_dir}/page.cpp
    ${_collector_dir}/render.cpp
    # The library's own UTF-8 check, so that both read text the same way.
    ${_collector_dir}/../../src/core/utf8.cpp)
  target_include_directories(velmora_collector_core PUBLIC ${_collector_dir})
  target_include_directories(velmora_collector_core PRIVATE ${_collector_dir}/../../src)
  target_compile_options(velmora_collector_core PRIVATE ${VELMORA_WARNINGS})
  target_link_libraries(velmora_collector_core PUBLIC
    PkgConfig::HTTPLIB nlohmann_json::nlohmann_json Threads::Threads)
  unset(_collector_dir)
endif()
