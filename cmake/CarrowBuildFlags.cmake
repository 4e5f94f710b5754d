# Warning and sanitizer flags shared by every target of the project.

if(CARROW_SANITIZE STREQUAL "thread")
  set(CARROW_SANITIZER_FLAGS -fsanitize=thread)
elseif(CARROW_SANITIZE STREQUAL "address")
  set(CARROW_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined)
elseif(NOT CARROW_SANITIZE STREQUAL "")
  message(FATAL_ERROR "CARROW_SANITIZE must be empty, 'thread' or 'address'")
endif()
if(CARROW_SANITIZER_FLAGS)
  add_compile_options(${CARROW_SANITIZER_FLAGS} -fno-omit-frame-pointer)
  add_link_options(${CARROW_SANITIZER_FLAGS})
endif()

function(carrow_target_flags target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(CARROW_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Link flags that keep a process's start-up short: only the libraries a target calls directly
# are recorded as needed, and the linker optimises the dynamic symbol hash tables.
function(carrow_link_flags target)
  target_link_options(${target} PRIVATE LINKER:--as-needed LINKER:-O1)
endfunction()
