# qel_subsystem(folder): one object library, qel_<folder>, of the folder's sources and those of its sub-folders. The
# module is made of them; a test that sets an internal switch links one directly.
function(qel_subsystem folder)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT sources)
    add_library(qel_${folder} INTERFACE)
    return()
  endif()
  add_library(qel_${folder} OBJECT ${sources})
  target_compile_definitions(qel_${folder} PRIVATE QEL_BUILD)
  target_link_libraries(qel_${folder} PRIVATE qel_product_options OpenMP::OpenMP_CXX)
endfunction()
