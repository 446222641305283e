# Flags of every target. Contraction is off so that a kernel gives the same bits in each of its
# instruction-set variants; the two math flags change no value, they let loops with roots and
# comparisons become vectors. Vector types never cross a real call, so how they would is of no concern.
add_library(verdel_flags INTERFACE)
target_compile_options(verdel_flags INTERFACE
  -Wall -Wextra -Wconversion -Wsign-conversion -Wshadow -Wdouble-promotion
  -ffp-contract=off -fno-math-errno -fno-trapping-math -Wno-psabi
  $<$<CONFIG:Release>:-O3>)
if(VERDEL_WARNINGS_AS_ERRORS)
  target_compile_options(verdel_flags INTERFACE -Werror)
endif()
if(VERDEL_SANITIZE)
  target_compile_options(verdel_flags INTERFACE -fsanitize=${VERDEL_SANITIZE}
    -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(verdel_flags INTERFACE -fsanitize=${VERDEL_SANITIZE})
  target_compile_definitions(verdel_flags INTERFACE VERDEL_SANITIZED)
endif()
if(VERDEL_FUZZ)
  target_compile_options(verdel_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
