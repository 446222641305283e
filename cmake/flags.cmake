# Flags of every target. Contraction is off so that a kernel gives the same bits in each of its
# instruction-set variants; the two math flags change no value, they let loops with roots and
# comparisons become vectors.
add_library(verdel_flags INTERFACE)
target_compile_options(verdel_flags INTERFACE
  -Wall -Wextra -Wconversion -Wsign-conversion -Wshadow -Wdouble-promotion
  -ffp-contract=off -fno-math-errno -fno-trapping-math
  $<$<CONFIG:Release>:-O3>)
if(VERDEL_WARNINGS_AS_ERRORS)
  target_compile_options(verdel_flags INTERFACE -Werror)
endif()
if(VERDEL_SANITIZE)
  target_compile_options(verdel_flags INTERFACE -fsanitize=${VERDEL_SANITIZE}
    -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(verdel_flags INTERFACE -fsanitize=${VERDEL_SANITIZE})
  # Function variants resolve before the sanitizers' runtime is up.
  target_compile_definitions(verdel_flags INTERFACE VERDEL_SINGLE_TARGET)
endif()
