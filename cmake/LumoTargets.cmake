# Warnings and sanitizers as INTERFACE targets, linked PRIVATE by every Lumo target.
add_library(lumo_warnings INTERFACE)
# Beyond -Wall -Wextra, the warnings that catch real faults in code like ours: a name that
# hides another, a class deleted through a base without a virtual destructor, an overload that
# hides a virtual, a provable null dereference, a cast to stricter alignment, a float quietly
# widened, a stray semicolon.
target_compile_options(lumo_warnings INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
                       -Woverloaded-virtual -Wnull-dereference -Wcast-align -Wdouble-promotion
                       -Wextra-semi)
if(LUMO_WERROR)
  target_compile_options(lumo_warnings INTERFACE -Werror)
endif()

add_library(lumo_sanitizers INTERFACE)
if(LUMO_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "LUMO_FUZZ needs clang (libFuzzer): configure with CMAKE_CXX_COMPILER=clang++")
  endif()
  # Every library is instrumented for coverage; only the fuzz targets link libFuzzer's main.
  target_compile_options(lumo_sanitizers INTERFACE
                         -fsanitize=fuzzer-no-link,address,undefined,float-cast-overflow
                         -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(lumo_sanitizers INTERFACE -fsanitize=address,undefined,float-cast-overflow)
elseif(LUMO_SANITIZE STREQUAL "address")
  # float-cast-overflow is not part of "undefined": a NaN or infinite double cast to an integer
  # would otherwise pass unnoticed.
  target_compile_options(lumo_sanitizers INTERFACE
                         -fsanitize=address,undefined,float-cast-overflow
                         -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(lumo_sanitizers INTERFACE -fsanitize=address,undefined,float-cast-overflow)
  # GCC's flow analysis sees through the sanitizers' instrumentation poorly and reports
  # uninitialised reads inside std::regex and std::function that are not there.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(lumo_sanitizers INTERFACE -Wno-maybe-uninitialized)
  endif()
elseif(LUMO_SANITIZE STREQUAL "thread")
  target_compile_options(lumo_sanitizers INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  # Asio fences its scheduler with std::atomic_thread_fence, which TSan does not model; GCC
  # says so once per use. The fences guard what TSan sees through the surrounding atomics.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(lumo_sanitizers INTERFACE -Wno-tsan)
  endif()
  target_link_options(lumo_sanitizers INTERFACE -fsanitize=thread)
elseif(NOT LUMO_SANITIZE STREQUAL "")
  message(FATAL_ERROR "LUMO_SANITIZE must be empty, 'address' or 'thread'")
endif()

# lumo_glob(<var> <dir>...): the C++ sources under the given directories. New files are picked
# up at the next build without editing CMake.
function(lumo_glob var)
  set(patterns)
  foreach(dir IN LISTS ARGN)
    list(APPEND patterns "${dir}/*.cpp")
  endforeach()
  file(GLOB_RECURSE files CONFIGURE_DEPENDS ${patterns})
  set(${var} ${files} PARENT_SCOPE)
endfunction()
