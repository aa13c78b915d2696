# Flags of every target: the warnings, and the sanitizers of a sanitizer build.
add_library(nuvika_flags INTERFACE)
target_compile_options(nuvika_flags INTERFACE
  -Wall -Wextra -Wpedantic
  -Wshadow # a member hidden by a parameter has cost us an afternoon
  -Wnon-virtual-dtor -Woverloaded-virtual
  $<$<BOOL:${NUVIKA_WERROR}>:-Werror>)
target_compile_definitions(nuvika_flags INTERFACE QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_FOREACH
  QT_DEPRECATED_WARNINGS)
if(NUVIKA_SANITIZE)
  target_compile_options(nuvika_flags INTERFACE -fsanitize=${NUVIKA_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=undefined)
  target_link_options(nuvika_flags INTERFACE -fsanitize=${NUVIKA_SANITIZE})
endif()
