#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "LoginStorage/version/VersionInfo.h"

namespace {

using VelLogin::VersionDependency;
using VelLogin::VersionRecord;

// What this release says about itself, line by line, exactly as readers of
// the record see it.
const std::vector<std::string> kExpectedLines = {
    "VELVI Magic Signiture=-\x01"
    "l\x02"
    "o\x03"
    "V\x04"
    "E%.",
    "VELVI version=5",
    "Name=LoginStorage",
    "Type=library",
    "Module Name=vel_login",
    "Build Number=979000012",
    "Major Release=Quillmoor",
    "Major Release Number=5",
    "Minor Release=Quillmoor_Lantern",
    "Minor Release Number=0",
    "Option Pack Number=5",
    "Version String=Quillmoor",
    "Interface Version=0",
    "Comments=",
    "Company Name=LoginStorage Developers",
    "Legal Copyright=Copyright (C) 2019-2026 LoginStorage Developers. MIT License, see LICENSE.",
    "Internal Name=LoginStorage",
    "Configuration=linux30/release.dynamic",
    "Dependent Libraries=lsbase:lstrace:lsfileio:lsnames",
    "Dependent Libraries Info:",
    "lstrace:I:v3_3",
    "lsbase:I:Quillmoor_Lantern",
    "lsnames:I:v1_2",
    "lsfileio:I:v2_7",
};

std::string expectedBlock() {
  std::string block;
  for (const std::string& line : kExpectedLines) block += line + "\n";
  return block;
}

TEST(VersionTextBlock, HoldsEveryLineInOrder) {
  EXPECT_EQ(LoginStorage_version_info_str, expectedBlock());
}

// The record's fields as readers of the format address them: 22 words of 32
// bits on i386; the same order with natural alignment on x86-64.
TEST(VersionRecordLayout, FieldsSitWhereReadersLookForThem) {
#if defined(__i386__)
  EXPECT_EQ(sizeof(VersionRecord), 88u);
  const std::size_t text = 4;
  const std::size_t offsets[] = {0,  4,  16, 20, 24, 28, 32, 36, 40, 44,
                                 48, 52, 56, 60, 64, 68, 72, 76, 80, 84};
#elif defined(__x86_64__)
  EXPECT_EQ(sizeof(VersionRecord), 152u);
  const std::size_t text = 8;
  const std::size_t offsets[] = {0,  4,  16, 24,  32,  40,  48,  56,  64,  72,
                                 80, 88, 96, 104, 112, 120, 128, 132, 136, 144};
#else
  GTEST_SKIP() << "no reference layout for this architecture";
  const std::size_t text = sizeof(void*);
  const std::size_t offsets[20] = {};
#endif
  EXPECT_EQ(sizeof(static_cast<VersionRecord*>(nullptr)->name), text);
  EXPECT_EQ(sizeof(VersionDependency), 5 * text);
// clang-format off
#define AT(field) offsetof(VersionRecord, field)
  const std::size_t actual[] = {
      AT(formatVersion), AT(signature), AT(name), AT(type), AT(moduleName), AT(buildNumber),
      AT(majorRelease), AT(interfaceVersion), AT(comments), AT(companyName), AT(legalCopyright),
      AT(internalName), AT(configuration), AT(dependentLibraries), AT(minorRelease),
      AT(dependencies), AT(majorReleaseNumber), AT(minorReleaseNumber), AT(optionPackNumber),
      AT(versionString)};
#undef AT
  // clang-format on
  ASSERT_EQ(std::size(actual), std::size(offsets));
  for (std::size_t i = 0; i < std::size(actual); ++i) {
    EXPECT_EQ(actual[i], offsets[i]) << "field " << i;
  }
}

std::string text(const char* value) { return value != nullptr ? value : "(null)"; }

// The record rendered line by line as the text block lays it out, dependency
// table included, must be the text block: both say the same.
TEST(VersionRecord, SaysWhatTheTextBlockSays) {
  const VersionRecord& r = LoginStorage_version_info;
  std::vector<std::string> lines = {
      "VELVI Magic Signiture=" + std::string(r.signature, sizeof r.signature - 1),
      "VELVI version=" + std::to_string(r.formatVersion),
      "Name=" + text(r.name),
      "Type=" + std::string(r.type == VelLogin::kVersionTypeLibrary ? "library" : "?"),
      "Module Name=" + text(r.moduleName),
      "Build Number=" + std::to_string(r.buildNumber),
      "Major Release=" + text(r.majorRelease),
      "Major Release Number=" + std::to_string(r.majorReleaseNumber),
      "Minor Release=" + text(r.minorRelease),
      "Minor Release Number=" + std::to_string(r.minorReleaseNumber),
      "Option Pack Number=" + std::to_string(r.optionPackNumber),
      "Version String=" + text(r.versionString),
      "Interface Version=" + std::to_string(r.interfaceVersion),
      "Comments=" + text(r.comments),
      "Company Name=" + text(r.companyName),
      "Legal Copyright=" + text(r.legalCopyright),
      "Internal Name=" + text(r.internalName),
      "Configuration=" + text(r.configuration),
      "Dependent Libraries=" + text(r.dependentLibraries),
      "Dependent Libraries Info:",
  };
  EXPECT_EQ(r.signature[sizeof r.signature - 1], '\0');
  ASSERT_NE(r.dependencies, nullptr);
  const VersionDependency* row = r.dependencies;
  for (; row->name != nullptr && lines.size() < kExpectedLines.size(); ++row) {
    lines.push_back(text(row->name) + ":" + text(row->kind) + ":" + text(row->release));
    EXPECT_EQ(text(row->reserved1) + text(row->reserved2), "") << row->name;
  }
  EXPECT_EQ(lines, kExpectedLines);
  // The table ends with a row of five null pointers.
  const void* const* end = reinterpret_cast<const void* const*>(row);
  for (int word = 0; word < 5; ++word) EXPECT_EQ(end[word], nullptr) << "word " << word;
}

// The pointer symbol holds the record's address as the dynamic linker
// relocated it: an address inside the library's image, where the record's
// symbol is.
TEST(VersionRecordPointer, HoldsTheRecordsAddressAfterRelocation) {
  EXPECT_EQ(__LoginStorage_version_info, &LoginStorage_version_info);

  void* library = dlopen(LOGINSTORAGE_LIBRARY_FILE, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr) << dlerror();
  const void* record = dlsym(library, "LoginStorage_version_info");
  const void* pointer = dlsym(library, "__LoginStorage_version_info");
  dlclose(library);
  ASSERT_NE(record, nullptr);
  ASSERT_NE(pointer, nullptr);
  EXPECT_EQ(*static_cast<const void* const*>(pointer), record);
  EXPECT_EQ(record, static_cast<const void*>(&LoginStorage_version_info));

  Dl_info where{};
  ASSERT_NE(dladdr(__LoginStorage_version_info, &where), 0);
  EXPECT_STREQ(where.dli_sname, "LoginStorage_version_info");
  EXPECT_EQ(where.dli_saddr, static_cast<const void*>(__LoginStorage_version_info));
}

// True when the page holding address is mapped without write permission.
bool isReadOnly(const void* address) {
  std::ifstream maps("/proc/self/maps");
  const auto value = reinterpret_cast<std::uintptr_t>(address);
  std::string line;
  while (std::getline(maps, line)) {
    std::istringstream fields(line);
    std::uintptr_t from = 0, to = 0;
    char dash = 0;
    std::string permissions;
    fields >> std::hex >> from >> dash >> to >> permissions;
    if (value >= from && value < to) return permissions.size() > 1 && permissions[1] == '-';
  }
  return false;
}

TEST(VersionRecordPointer, AllThreeSymbolsAreReadOnlyOnceLoaded) {
  EXPECT_TRUE(isReadOnly(LoginStorage_version_info_str));
  EXPECT_TRUE(isReadOnly(&LoginStorage_version_info));
  EXPECT_TRUE(isReadOnly(&__LoginStorage_version_info));
  EXPECT_TRUE(isReadOnly(LoginStorage_version_info.dependencies));
  EXPECT_TRUE(isReadOnly(LoginStorage_version_info.companyName));
}

// Readers find the text block in the library file without loading it.
TEST(VersionTextBlockInFile, IsInTheLibraryFileAsLaidOut) {
  std::ifstream in(LOGINSTORAGE_LIBRARY_FILE, std::ios::binary);
  ASSERT_TRUE(in) << LOGINSTORAGE_LIBRARY_FILE;
  const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

  const std::string signature = kExpectedLines.front() + "\n";
  const std::string::size_type at = file.find(signature);
  ASSERT_NE(at, std::string::npos) << "no signature line in the file";
  EXPECT_EQ(file.find(signature, at + 1), std::string::npos) << "signature line found twice";

  const std::string::size_type nul = file.find('\0', at);
  ASSERT_NE(nul, std::string::npos);
  EXPECT_EQ(file.substr(at, nul - at), expectedBlock());
}

}  // namespace
