# The compile settings of every target of this project (warnings and 64-bit
# file offsets), applied PRIVATE so that nothing leaks into the compile flags
# of a consumer.
add_library(loginstorage_build_flags INTERFACE)
target_compile_options(loginstorage_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align
  -Wformat=2 -Wimplicit-fallthrough
  $<$<BOOL:${LOGINSTORAGE_WERROR}>:-Werror>)

# Our own targets (library, tool, tests) see files of any size and folders with
# any inode numbers on 32-bit builds too: the tool lists records of 4 GiB and
# more, and its test makes a 5 GiB (sparse) one. No installed header uses
# off_t, ino_t or struct stat, so consumers built either way link alike.
# time_t is left as the platform has it.
target_compile_definitions(loginstorage_build_flags INTERFACE _FILE_OFFSET_BITS=64)
