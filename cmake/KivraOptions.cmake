# Compile options shared by every target of this project, kept on an interface
# target so that they never leak into the installed package.
add_library(kivra_options INTERFACE)
target_compile_options(kivra_options INTERFACE -Wall -Wextra -Wpedantic)

if(KIVRA_SANITIZE)
  set(_kivra_san -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_compile_options(kivra_options INTERFACE ${_kivra_san})
  target_link_options(kivra_options INTERFACE ${_kivra_san})
endif()

if(KIVRA_SANITIZE_THREAD)
  # ThreadSanitizer keeps its own shadow memory and cannot share a process with AddressSanitizer.
  if(KIVRA_SANITIZE)
    message(FATAL_ERROR "KIVRA_SANITIZE and KIVRA_SANITIZE_THREAD cannot be combined")
  endif()
  set(_kivra_tsan -fsanitize=thread -fno-omit-frame-pointer)
  target_compile_options(kivra_options INTERFACE ${_kivra_tsan})
  target_link_options(kivra_options INTERFACE ${_kivra_tsan})
endif()

# Every library and executable of the tree links this, privately.
function(kivra_apply_options target)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:kivra_options>)
endfunction()
