# tarn_add_module(NAME SOURCES...): a protocol module, built as Frameworks/lib<NAME>.dylib. The suffix
# is part of the contract with the module loader on every system.
function(tarn_add_module name)
  set(target tarn_module_${name})
  add_library(${target} MODULE ${ARGN})
  target_link_libraries(${target} PRIVATE tarn_options tarn_interfaces tarn_common)
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME ${name} PREFIX lib SUFFIX .dylib
    LIBRARY_OUTPUT_DIRECTORY ${TARN_MODULE_DIRECTORY})
  install(TARGETS ${target} LIBRARY DESTINATION Frameworks)
endfunction()
