// The version-information record as read-only data. The values the team
// chooses come from VersionValues.h (generated); the rest is fixed by the
// record format and written out here.
#include "LoginStorage/version/VersionInfo.h"

#include "VersionValues.h"

#define LOGINSTORAGE_VI_TEXT_(x) #x
#define LOGINSTORAGE_VI_TEXT(x) LOGINSTORAGE_VI_TEXT_(x)

// Fixed by the format. The signature's letters stand apart from their control
// bytes so that none is read as a further hex digit ("\x04E" is one byte).
#define LOGINSTORAGE_VI_SIGNATURE \
  "-\x01"                         \
  "l\x02"                         \
  "o\x03"                         \
  "V\x04"                         \
  "E%."
#define LOGINSTORAGE_VI_FORMAT_VERSION 5
#define LOGINSTORAGE_VI_INTERFACE_VERSION 0
#define LOGINSTORAGE_VI_NAME "LoginStorage"
#define LOGINSTORAGE_VI_MODULE_NAME "vel_login"
#define LOGINSTORAGE_VI_CONFIGURATION "linux30/release.dynamic"

extern "C" {

LOGINSTORAGE_EXPORT extern const char LoginStorage_version_info_str[] =
    "VELVI Magic Signiture=" LOGINSTORAGE_VI_SIGNATURE "\n"
    "VELVI version=" LOGINSTORAGE_VI_TEXT(LOGINSTORAGE_VI_FORMAT_VERSION) "\n"
    "Name=" LOGINSTORAGE_VI_NAME "\n"
    "Type=library\n"
    "Module Name=" LOGINSTORAGE_VI_MODULE_NAME "\n"
    "Build Number=" LOGINSTORAGE_VI_TEXT(LOGINSTORAGE_VI_BUILD_NUMBER) "\n"
    "Major Release=" LOGINSTORAGE_VI_MAJOR_RELEASE "\n"
    "Major Release Number=" LOGINSTORAGE_VI_TEXT(LOGINSTORAGE_VI_MAJOR_NUMBER) "\n"
    "Minor Release=" LOGINSTORAGE_VI_MINOR_RELEASE "\n"
    "Minor Release Number=" LOGINSTORAGE_VI_TEXT(LOGINSTORAGE_VI_MINOR_NUMBER) "\n"
    "Option Pack Number=" LOGINSTORAGE_VI_TEXT(LOGINSTORAGE_VI_OPTION_PACK_NUMBER) "\n"
    "Version String=" LOGINSTORAGE_VI_MAJOR_RELEASE "\n"
    "Interface Version=" LOGINSTORAGE_VI_TEXT(LOGINSTORAGE_VI_INTERFACE_VERSION) "\n"
    "Comments=\n"
    "Company Name=" LOGINSTORAGE_VI_COMPANY_NAME "\n"
    "Legal Copyright=" LOGINSTORAGE_VI_COPYRIGHT "\n"
    "Internal Name=" LOGINSTORAGE_VI_NAME "\n"
    "Configuration=" LOGINSTORAGE_VI_CONFIGURATION "\n"
    "Dependent Libraries=" LOGINSTORAGE_VI_DEPENDENT_LIBRARIES "\n"
    "Dependent Libraries Info:\n"
    LOGINSTORAGE_VI_DEPENDENCY_LINES;

}  // extern "C"

namespace {

// clang-format off
const VelLogin::VersionDependency kDependencies[] = {
    LOGINSTORAGE_VI_DEPENDENCY_ROWS
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};
// clang-format on

}  // namespace

extern "C" {

LOGINSTORAGE_EXPORT extern const VelLogin::VersionRecord LoginStorage_version_info = {
    LOGINSTORAGE_VI_FORMAT_VERSION,
    LOGINSTORAGE_VI_SIGNATURE,
    LOGINSTORAGE_VI_NAME,
    VelLogin::kVersionTypeLibrary,
    LOGINSTORAGE_VI_MODULE_NAME,
    LOGINSTORAGE_VI_BUILD_NUMBER,
    LOGINSTORAGE_VI_MAJOR_RELEASE,
    LOGINSTORAGE_VI_INTERFACE_VERSION,
    "",  // comments
    LOGINSTORAGE_VI_COMPANY_NAME,
    LOGINSTORAGE_VI_COPYRIGHT,
    LOGINSTORAGE_VI_NAME,
    LOGINSTORAGE_VI_CONFIGURATION,
    LOGINSTORAGE_VI_DEPENDENT_LIBRARIES,
    LOGINSTORAGE_VI_MINOR_RELEASE,
    kDependencies,
    LOGINSTORAGE_VI_MAJOR_NUMBER,
    LOGINSTORAGE_VI_MINOR_NUMBER,
    LOGINSTORAGE_VI_OPTION_PACK_NUMBER,
    LOGINSTORAGE_VI_MAJOR_RELEASE,  // the version string is the major release name
};

// Holds the record's address, filled in by the dynamic linker when it
// relocates the library.
LOGINSTORAGE_EXPORT extern const VelLogin::VersionRecord* const __LoginStorage_version_info =
    &LoginStorage_version_info;

}  // extern "C"
