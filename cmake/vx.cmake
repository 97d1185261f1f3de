# Per-target build settings. Sanitizers are applied per target, not globally:
# the simulator's preload library must stay uninstrumented so that it can be
# preloaded into any program (systool, sh, ...).

set(VX_WARNINGS -Wall -Wextra -Werror -Wshadow -Wformat=2 -Wno-format-nonliteral
    -Wcast-align -Wnull-dereference -Wimplicit-fallthrough)

function(vx_defaults target)
  target_compile_options(${target} PRIVATE ${VX_WARNINGS})
endfunction()

function(vx_sanitize target)
  if(VX_FUZZ)
    # Coverage for the fuzzer, with the sanitizers it runs under.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link,address,undefined
                           -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  elseif(VX_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined
                           -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  elseif(VX_TSAN)
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  endif()
endfunction()
