# The identity of this release as the version-information record and the
# packages state it. These values are ours to choose and are kept here only;
# the release numbers come from project(VERSION) in the top CMakeLists.txt.
#
# Values end up inside C string literals and "key=value" lines: no '"', '\',
# newline or control characters; library names and tags take no ':' either.

# Counts every build the team has released, across all release lines.
set(LOGINSTORAGE_BUILD_NUMBER 979000012)

# The 5.x line is "Quillmoor"; its first minor release is "Quillmoor_Lantern".
# The major release name is also the version string.
set(LOGINSTORAGE_MAJOR_RELEASE_NAME "Quillmoor")
set(LOGINSTORAGE_MINOR_RELEASE_NAME "Quillmoor_Lantern")

set(LOGINSTORAGE_COMPANY_NAME "LoginStorage Developers")
set(LOGINSTORAGE_COPYRIGHT
  "Copyright (C) 2019-2026 LoginStorage Developers. MIT License, see LICENSE.")
set(LOGINSTORAGE_CONTACT "LoginStorage Developers <maintainers@loginstorage.invalid>")

# The in-house libraries this one needs, as the record lists them by name.
set(LOGINSTORAGE_DEPENDENT_LIBRARIES lsbase lstrace lsfileio lsnames)

# The release each of them was built against, "name:tag", in the order of the
# record's dependency lines and table rows.
set(LOGINSTORAGE_DEPENDENCY_RELEASES
  "lstrace:v3_3"
  "lsbase:${LOGINSTORAGE_MINOR_RELEASE_NAME}"
  "lsnames:v1_2"
  "lsfileio:v2_7")
