#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "LoginStorage/version/VersionInfo.h"
#include "support/TempFolder.h"

namespace {

using namespace std::string_literals;

const std::string kSignatureLine = "VELVI Magic Signiture=-\001l\002o\003V\004E%.\n";

// What this release says about itself, exactly as readers of the text see it.
const std::string kText = kSignatureLine + R"(VELVI version=5
Name=LoginStorage
Type=library
Module Name=vel_login
Build Number=979000012
Major Release=Quillmoor
Major Release Number=5
Minor Release=Quillmoor_Lantern
Minor Release Number=0
Option Pack Number=5
Version String=Quillmoor
Interface Version=0
Comments=
Company Name=LoginStorage Developers
Legal Copyright=Copyright (C) 2019-2026 LoginStorage Developers. MIT License, see LICENSE.
Internal Name=LoginStorage
Configuration=linux30/release.dynamic
Dependent Libraries=lsbase:lstrace:lsfileio:lsnames
Dependent Libraries Info:
lstrace:I:v3_3
lsbase:I:Quillmoor_Lantern
lsnames:I:v1_2
lsfileio:I:v2_7
)";

// The same values as the record holds them, fields in declaration order, the
// dependency rows in brackets up to the row of null pointers that ends them.
const std::string kRecord =
    "5|-\001l\002o\003V\004E%.\0|LoginStorage|1|vel_login|979000012|Quillmoor|0||LoginStorage "
    "Developers|Copyright (C) 2019-2026 LoginStorage Developers. MIT License, see LICENSE.|"
    "LoginStorage|linux30/release.dynamic|lsbase:lstrace:lsfileio:lsnames|Quillmoor_Lantern|"
    "[lstrace|I|v3_3||][lsbase|I|Quillmoor_Lantern||][lsnames|I|v1_2||][lsfileio|I|v2_7||]"
    "[(null)|(null)|(null)|(null)|(null)]|5|0|5|Quillmoor"s;

// Walks a record's bytes the way readers of the format do, without the
// compiler's idea of the struct: i a 32-bit number, s the 12-byte signature,
// p a text, d the dependency rows, each at its natural alignment.
std::string render(const void* record, const std::string& kinds) {
  const auto* bytes = static_cast<const unsigned char*>(record);
  std::string out;
  std::size_t at = 0;
  const auto read = [&](auto v) { return std::memcpy(&v, bytes + at, sizeof v), v; };
  for (const char kind : kinds) {
    const std::size_t size = kind == 's' ? 12 : kind == 'i' ? 4 : sizeof(void*);
    if (kind != 's') at = (at + size - 1) / size * size;
    if (at != 0) out += '|';
    if (kind == 'i') out += std::to_string(read(std::uint32_t{}));
    if (kind == 's') out.append(reinterpret_cast<const char*>(bytes) + at, size);
    const char* const text = kind == 'p' ? read(static_cast<const char*>(nullptr)) : "";
    out += text != nullptr ? text : "(null)";
    int rows = 0;
    for (auto row = kind == 'd' ? read(static_cast<const char* const*>(nullptr)) : nullptr;
         row != nullptr && rows++ < 8; row = row[0] != nullptr ? row + 5 : nullptr) {
      out += "[" + render(row, "ppppp") + "]";
    }
    at += size;
  }
  return out;
}

// True when the page holding address is mapped without write permission.
bool isReadOnly(const void* address) {
  std::ifstream maps("/proc/self/maps");
  const auto value = reinterpret_cast<std::uintptr_t>(address);
  std::uintmax_t from = 0, to = 0;
  char dash = 0;
  std::string permissions, rest;
  while (maps >> std::hex >> from >> dash >> to >> permissions && std::getline(maps, rest)) {
    if (value >= from && value < to) return permissions[1] == '-';
  }
  return false;
}

// Readers find the text in the loaded library and in its file, and walk the
// record: 22 words of 32 bits on i386, the same order naturally aligned on
// x86-64. The pointer holds the record's address as the dynamic linker
// relocated it (the test is position-independent, so it sees the library's
// record, not a copy), and all of it stays read-only.
TEST(VersionRecord, TextRecordAndPointerSayTheSameWhereReadersLook) {
  EXPECT_EQ(LoginStorage_version_info_str, kText);
  EXPECT_EQ(render(&LoginStorage_version_info, "ispipipipppppppdiiip"), kRecord);
  EXPECT_EQ(__LoginStorage_version_info, &LoginStorage_version_info);
  for (const void* address : std::initializer_list<const void*>{
           LoginStorage_version_info_str, &LoginStorage_version_info, &__LoginStorage_version_info,
           LoginStorage_version_info.dependencies, LoginStorage_version_info.companyName}) {
    EXPECT_TRUE(isReadOnly(address)) << address;
  }

  const std::string file = testsupport::readFileBytes(LOGINSTORAGE_LIBRARY_FILE);
  const std::string::size_type at = file.find(kSignatureLine);
  ASSERT_NE(at, std::string::npos) << "no signature line in " << LOGINSTORAGE_LIBRARY_FILE;
  EXPECT_EQ(file.find(kSignatureLine, at + 1), std::string::npos) << "found twice";
  EXPECT_EQ(file.substr(at, file.find('\0', at) - at), kText);
}

}  // namespace
