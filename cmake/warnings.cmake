# One warning list for every target of this project, applied PRIVATE so that
# nothing leaks into the compile flags of a consumer.
add_library(loginstorage_warnings INTERFACE)
target_compile_options(loginstorage_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align
  -Wformat=2 -Wimplicit-fallthrough
  $<$<BOOL:${LOGINSTORAGE_WERROR}>:-Werror>)
