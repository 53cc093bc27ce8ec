# Compiler options that every target of this project takes by linking tarn_options.
add_library(tarn_options INTERFACE)
target_include_directories(tarn_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_definitions(tarn_options INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(tarn_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# The interfaces are operation tables at fixed positions and therefore have no virtual destructor.
target_compile_options(tarn_options INTERFACE -Wno-non-virtual-dtor)
target_link_libraries(tarn_options INTERFACE Threads::Threads)

if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(tarn_options INTERFACE -Wthread-safety)
endif()
if(TARN_WARNINGS_AS_ERRORS)
  target_compile_options(tarn_options INTERFACE -Werror)
endif()
if(TARN_SANITIZE)
  add_compile_options(-fsanitize=${TARN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TARN_SANITIZE})
endif()
