# The one place for warning, sanitizer and coverage flags. Hosts that build us never get -Werror:
# it is switched on only by KESTROVA_WERROR, which CI sets.
add_library(kestrova_warnings INTERFACE)
target_compile_options(kestrova_warnings INTERFACE -Wall -Wextra -Wpedantic)
if(KESTROVA_WERROR)
  target_compile_options(kestrova_warnings INTERFACE -Werror)
endif()

if(KESTROVA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

# Line and branch counts for scripts/coverage (a Debug build, so that lines map to code).
# Atomic counters: the library's threads would otherwise lose increments and gcov would read
# negative branch counts.
if(KESTROVA_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
