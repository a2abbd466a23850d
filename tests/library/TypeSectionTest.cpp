// The section of the library file that tools read without loading it.

#include <gtest/gtest.h>
#include <link.h>

#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include <Lumo/TypeRegistry.h>

namespace {

// A structure that stands in a file.
template <class Part>
Part partOf(const std::string& file, std::size_t at) {
  Part part{};
  file.copy(reinterpret_cast<char*>(&part), sizeof(part), at);
  return part;
}

// The content of a section; empty where there is none of that name.
std::string sectionOf(const std::string& file, std::string_view name) {
  const auto header = partOf<ElfW(Ehdr)>(file, 0);
  const auto describing = [&](std::size_t section) {
    return partOf<ElfW(Shdr)>(file, header.e_shoff + section * header.e_shentsize);
  };
  const std::size_t names = describing(header.e_shstrndx).sh_offset;
  for (std::size_t section = 0; section < header.e_shnum; ++section) {
    const auto found = describing(section);
    if (name == file.c_str() + names + found.sh_name) {
      return file.substr(found.sh_offset, found.sh_size);
    }
  }
  return "";
}

TEST(TypeSection, HoldsTheRegisteredNamesEachOnAMultipleOfFour) {
  std::ifstream in(LIBRARY_FILE, std::ios::binary);
  const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::string names;
  for (const Lumo::LumoType* type : Lumo::typeNodes()) {
    names.resize((names.size() + 3) / 4 * 4);
    names += type->typeName();
    names += '\0';
  }
  EXPECT_EQ(sectionOf(file, ".lumo.type"), names);
}

}  // namespace
