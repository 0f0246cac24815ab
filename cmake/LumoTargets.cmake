# Warnings and sanitizers as INTERFACE targets, linked PRIVATE by every Lumo target.
add_library(lumo_warnings INTERFACE)
target_compile_options(lumo_warnings INTERFACE -Wall -Wextra)
if(LUMO_WERROR)
  target_compile_options(lumo_warnings INTERFACE -Werror)
endif()

add_library(lumo_sanitizers INTERFACE)
if(LUMO_SANITIZE STREQUAL "address")
  target_compile_options(lumo_sanitizers INTERFACE -fsanitize=address,undefined
                         -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(lumo_sanitizers INTERFACE -fsanitize=address,undefined)
elseif(LUMO_SANITIZE STREQUAL "thread")
  target_compile_options(lumo_sanitizers INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
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
