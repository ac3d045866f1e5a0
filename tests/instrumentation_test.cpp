// Coverage instrumentation: in the fuzz build (TRAVIK_BUILD_FUZZ) the
// library, every plugin and every fuzz target carry it, or libFuzzer would
// see only the edges of the fuzz targets' own code and mutate blindly; in
// every other build nothing does.
//
// Clang's -fsanitize=fuzzer(-no-link) puts its edge counters and the table
// of their addresses into sections named __sancov_cntrs and __sancov_pcs
// (__sancov_guards with the older trace-pc-guard mode); the test looks for
// them in the section headers of each ELF file.
#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

template <typename Ehdr, typename Shdr>
bool read_section_names(const std::vector<char> &file, std::vector<std::string> *names) {
  if (file.size() < sizeof(Ehdr)) return false;
  Ehdr header;
  std::memcpy(&header, file.data(), sizeof header);
  if (header.e_shentsize != sizeof(Shdr) || header.e_shstrndx >= header.e_shnum) return false;
  auto section = [&](size_t index, Shdr *out) {
    size_t offset = header.e_shoff + index * sizeof(Shdr);
    if (offset + sizeof(Shdr) > file.size()) return false;
    std::memcpy(out, file.data() + offset, sizeof(Shdr));
    return true;
  };
  Shdr strings;
  if (!section(header.e_shstrndx, &strings) || strings.sh_offset + strings.sh_size > file.size())
    return false;
  for (size_t i = 0; i < header.e_shnum; i++) {
    Shdr entry;
    if (!section(i, &entry) || entry.sh_name >= strings.sh_size) return false;
    const char *name = file.data() + strings.sh_offset + entry.sh_name;
    names->emplace_back(name, strnlen(name, strings.sh_size - entry.sh_name));
  }
  return true;
}

// The section names of an ELF file (32- or 64-bit, little-endian); empty
// when the file is no such ELF file.
std::vector<std::string> section_names(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  std::vector<std::string> names;
  if (file.size() < EI_NIDENT || std::memcmp(file.data(), ELFMAG, SELFMAG) != 0 ||
      file[EI_DATA] != ELFDATA2LSB)
    return names;
  bool ok = file[EI_CLASS] == ELFCLASS64
                ? read_section_names<Elf64_Ehdr, Elf64_Shdr>(file, &names)
                : read_section_names<Elf32_Ehdr, Elf32_Shdr>(file, &names);
  if (!ok) names.clear();
  return names;
}

bool has_coverage(const std::vector<std::string> &names) {
  for (const std::string &name : names)
    if (name.rfind("__sancov_", 0) == 0) return true;
  return false;
}

const fs::path kBuild = TRAVIK_TEST_BINARY_DIR;

// The library and every plugin the build made.
std::vector<fs::path> library_and_plugins() {
  std::vector<fs::path> files{kBuild / "libtravik.so"};
  std::error_code error;
  for (const auto &entry : fs::recursive_directory_iterator(kBuild / "plugins", error))
    if (entry.is_regular_file() && entry.path().extension() == ".so") files.push_back(entry.path());
  return files;
}

#ifdef TRAVIK_TEST_FUZZ_BUILD
constexpr bool kFuzzBuild = true;
#else
constexpr bool kFuzzBuild = false;
#endif

TEST(Instrumentation, SectionNamesAreRead) {
  // Guards the checks below: a reader that found nothing would make "no
  // coverage sections" pass on any file.
  std::vector<std::string> names = section_names(kBuild / "libtravik.so");
  EXPECT_NE(std::find(names.begin(), names.end(), ".text"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), ".dynsym"), names.end());
  EXPECT_TRUE(section_names(TRAVIK_TEST_SOURCE_DIR "/CMakeLists.txt").empty());
}

TEST(Instrumentation, LibraryAndPlugins) {
  for (const fs::path &file : library_and_plugins()) {
    std::vector<std::string> names = section_names(file);
    ASSERT_FALSE(names.empty()) << file << " is no ELF file";
    EXPECT_EQ(has_coverage(names), kFuzzBuild)
        << file << (kFuzzBuild ? " lacks" : " carries") << " coverage instrumentation";
  }
}

TEST(Instrumentation, FuzzTargets) {
  if (!kFuzzBuild) GTEST_SKIP() << "not a fuzz build";
  int targets = 0;
  for (const auto &entry : fs::directory_iterator(kBuild / "fuzz")) {
    if (entry.path().filename().string().rfind("fuzz_", 0) != 0 || !entry.is_regular_file())
      continue;
    targets++;
    EXPECT_TRUE(has_coverage(section_names(entry.path())))
        << entry.path() << " lacks coverage instrumentation";
  }
  EXPECT_GT(targets, 0);
}

}  // namespace
