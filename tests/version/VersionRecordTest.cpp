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

std::vector<std::string> splitLines(const std::string& block) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  for (std::string::size_type end; (end = block.find('\n', start)) != std::string::npos;
       start = end + 1) {
    lines.push_back(block.substr(start, end - start));
  }
  if (start != block.size()) lines.push_back(block.substr(start) + " <no newline>");
  return lines;
}

// Also proves the block ends with its last line's newline (a missing one shows
// as "<no newline>") and has no blank line between fields.
TEST(VersionTextBlock, HoldsEveryLineInOrder) {
  EXPECT_EQ(splitLines(LoginStorage_version_info_str), kExpectedLines);
}

TEST(VersionTextBlock, SignatureLineCarriesItsControlBytes) {
  const unsigned char expected[] = {'V', 'E',  'L', 'V',  'I', ' ',  'M', 'a', 'g', 'i', 'c', ' ',
                                    'S', 'i',  'g', 'n',  'i', 't',  'u', 'r', 'e', '=', '-', 0x01,
                                    'l', 0x02, 'o', 0x03, 'V', 0x04, 'E', '%', '.', '\n'};
  EXPECT_EQ(0, std::memcmp(LoginStorage_version_info_str, expected, sizeof expected));
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
  const std::size_t actual[] = {offsetof(VersionRecord, formatVersion),
                                offsetof(VersionRecord, signature),
                                offsetof(VersionRecord, name),
                                offsetof(VersionRecord, type),
                                offsetof(VersionRecord, moduleName),
                                offsetof(VersionRecord, buildNumber),
                                offsetof(VersionRecord, majorRelease),
                                offsetof(VersionRecord, interfaceVersion),
                                offsetof(VersionRecord, comments),
                                offsetof(VersionRecord, companyName),
                                offsetof(VersionRecord, legalCopyright),
                                offsetof(VersionRecord, internalName),
                                offsetof(VersionRecord, configuration),
                                offsetof(VersionRecord, dependentLibraries),
                                offsetof(VersionRecord, minorRelease),
                                offsetof(VersionRecord, dependencies),
                                offsetof(VersionRecord, majorReleaseNumber),
                                offsetof(VersionRecord, minorReleaseNumber),
                                offsetof(VersionRecord, optionPackNumber),
                                offsetof(VersionRecord, versionString)};
  ASSERT_EQ(std::size(actual), std::size(offsets));
  for (std::size_t i = 0; i < std::size(actual); ++i) {
    EXPECT_EQ(actual[i], offsets[i]) << "field " << i;
  }
}

TEST(VersionRecord, HoldsTheSameValuesAsTheTextBlock) {
  const VersionRecord& record = LoginStorage_version_info;
  EXPECT_EQ(record.formatVersion, 5);
  EXPECT_EQ(0, std::memcmp(record.signature,
                           "-\x01l\x02o\x03V\x04"
                           "E%.",
                           12));
  EXPECT_EQ(record.signature[11], '\0');
  EXPECT_STREQ(record.name, "LoginStorage");
  EXPECT_EQ(record.type, 1);
  EXPECT_STREQ(record.moduleName, "vel_login");
  EXPECT_EQ(record.buildNumber, 979000012u);
  EXPECT_STREQ(record.majorRelease, "Quillmoor");
  EXPECT_EQ(record.interfaceVersion, 0);
  ASSERT_NE(record.comments, nullptr);
  EXPECT_STREQ(record.comments, "");
  EXPECT_STREQ(record.companyName, "LoginStorage Developers");
  EXPECT_STREQ(record.legalCopyright,
               "Copyright (C) 2019-2026 LoginStorage Developers. MIT License, see LICENSE.");
  EXPECT_STREQ(record.internalName, "LoginStorage");
  EXPECT_STREQ(record.configuration, "linux30/release.dynamic");
  EXPECT_STREQ(record.dependentLibraries, "lsbase:lstrace:lsfileio:lsnames");
  EXPECT_STREQ(record.minorRelease, "Quillmoor_Lantern");
  EXPECT_EQ(record.majorReleaseNumber, 5);
  EXPECT_EQ(record.minorReleaseNumber, 0);
  EXPECT_EQ(record.optionPackNumber, 5);
  EXPECT_STREQ(record.versionString, "Quillmoor");
}

TEST(VersionRecord, DependencyTableFollowsTheInfoLinesAndEndsWithANullRow) {
  struct Row {
    const char* name;
    const char* release;
  };
  const Row expected[] = {{"lstrace", "v3_3"},
                          {"lsbase", "Quillmoor_Lantern"},
                          {"lsnames", "v1_2"},
                          {"lsfileio", "v2_7"}};
  const VersionDependency* row = LoginStorage_version_info.dependencies;
  ASSERT_NE(row, nullptr);
  for (const Row& want : expected) {
    ASSERT_NE(row->name, nullptr) << "table ends before " << want.name;
    EXPECT_STREQ(row->name, want.name);
    EXPECT_STREQ(row->kind, "I");
    EXPECT_STREQ(row->release, want.release);
    ASSERT_NE(row->reserved1, nullptr);
    ASSERT_NE(row->reserved2, nullptr);
    EXPECT_STREQ(row->reserved1, "");
    EXPECT_STREQ(row->reserved2, "");
    ++row;
  }
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
