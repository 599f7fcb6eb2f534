# qel_subsystem(name pattern): one object library, qel_<name>, of the sources that fit the pattern. The module is made of
# them; a test that sets an internal switch links them directly.
function(qel_subsystem name pattern)
  file(GLOB sources CONFIGURE_DEPENDS ${pattern})
  add_library(qel_${name} OBJECT ${sources})
  target_compile_definitions(qel_${name} PRIVATE QEL_BUILD)
  target_link_libraries(qel_${name} PRIVATE qel_product_options OpenMP::OpenMP_CXX)
endfunction()
