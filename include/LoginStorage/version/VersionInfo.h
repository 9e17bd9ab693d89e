// The library's version-information record: a description of this build that
// can be read from libLoginStorage.so on disk or from the loaded library
// without calling any of its code. Nothing in the library reads it.
//
// It comes in two forms, both plain read-only data laid out at build time:
//
// - LoginStorage_version_info_str, a NUL-terminated text block. Its first line
//   is the format's signature, "VELVI Magic Signiture=-\x01l\x02o\x03V\x04E%.",
//   misspelling included: readers find the block in a file by searching for
//   that exact line. Every further line is "key=value", each ended by "\n", in
//   a fixed order: VELVI version, Name, Type, Module Name, Build Number, Major
//   Release, Major Release Number, Minor Release, Minor Release Number, Option
//   Pack Number, Version String, Interface Version, Comments, Company Name,
//   Legal Copyright, Internal Name, Configuration, Dependent Libraries (names
//   joined by ":"), then "Dependent Libraries Info:" and one "name:I:release"
//   line per dependent library. The block ends with that last line's "\n".
//
// - LoginStorage_version_info, the same values as a VersionRecord, and
//   __LoginStorage_version_info, a pointer that holds the record's address
//   once the library is loaded.
//
// A 32-bit build lays the record out as 22 words of 32 bits (88 bytes), the
// size that readers of the format expect; a 64-bit build keeps the fields and
// their order with natural alignment, pointers pointer-sized.
#ifndef LOGINSTORAGE_VERSION_VERSIONINFO_H
#define LOGINSTORAGE_VERSION_VERSIONINFO_H

#include "../storage/Export.h"

namespace VelLogin {

// One row of the dependent-library table. All five are texts; a row of five
// null pointers ends the table.
struct VersionDependency {
  const char* name;
  const char* kind;       // "I" for every library this one is built against
  const char* release;    // a release name or a version tag such as "v3_3"
  const char* reserved1;  // ""
  const char* reserved2;  // ""
};

// The binary form of the record. Texts point into the library's read-only
// data; an empty value is "", never a null pointer.
struct VersionRecord {
  int formatVersion;       // 5
  char signature[12];      // "-\x01l\x02o\x03V\x04E%." and its NUL
  const char* name;        // "LoginStorage"
  int type;                // kVersionTypeLibrary
  const char* moduleName;  // "vel_login"
  unsigned buildNumber;
  const char* majorRelease;
  int interfaceVersion;
  const char* comments;
  const char* companyName;
  const char* legalCopyright;
  const char* internalName;        // "LoginStorage"
  const char* configuration;       // platform and build kind
  const char* dependentLibraries;  // names joined by ":"
  const char* minorRelease;
  const VersionDependency* dependencies;  // the table, in "Info" line order
  int majorReleaseNumber;
  int minorReleaseNumber;
  int optionPackNumber;
  const char* versionString;  // the same text as majorRelease
};

// VersionRecord::type of a library (the only kind this record describes).
constexpr int kVersionTypeLibrary = 1;

static_assert(sizeof(void*) != 4 || sizeof(VersionRecord) == 88,
              "a 32-bit record is 22 words of 32 bits");

}  // namespace VelLogin

extern "C" {
LOGINSTORAGE_EXPORT extern const char LoginStorage_version_info_str[];
LOGINSTORAGE_EXPORT extern const VelLogin::VersionRecord LoginStorage_version_info;
LOGINSTORAGE_EXPORT extern const VelLogin::VersionRecord* const __LoginStorage_version_info;
}

#endif
