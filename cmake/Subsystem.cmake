# qel_subsystem(name pattern): one object library, qel_<name>, of the sources that fit the pattern. The module is made of
# them; a test that sets an internal switch links them directly.
function(qel_subsystem name pattern)
  file(GLOB sources CONFIGURE_DEPENDS ${pattern})
  add_library(qel_${name} OBJECT ${sources})
  target_compile_definitions(qel_${name} PRIVATE QEL_BUILD)
  target_link_libraries(qel_${name} PRIVATE qel_product_options OpenMP::OpenMP_CXX)
  qel_precompile(qel_${name} qel_base)
endfunction()

# qel_precompile(target first): compiles what most sources include once, for `first` and all that have its options. Every
# source still includes what it needs: script/lint reads it without.
function(qel_precompile target first)
  if(NOT target STREQUAL first)
    target_precompile_headers(${target} REUSE_FROM ${first})
    return()
  endif()
  target_precompile_headers(${target} PRIVATE <algorithm> <atomic> <memory> <string> <string_view>
    ${CMAKE_SOURCE_DIR}/qelibaselib/platform/win32.h)
endfunction()
