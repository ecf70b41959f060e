// tambril_helpdocs: writes docs/reference from the HELP table (--write DIR),
// or reports where the pages in DIR differ from the table (--check DIR).
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "tools/help.h"

namespace {

bool same_as_file(const std::string& path, const std::string& text) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return false;
  std::ostringstream s;
  s << f.rdbuf();
  return s.str() == text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || (std::strcmp(argv[1], "--write") != 0 && std::strcmp(argv[1], "--check") != 0)) {
    std::fprintf(stderr, "usage: tambril_helpdocs --write DIR | --check DIR\n");
    return 2;
  }
  const std::string dir = argv[2];
  if (std::strcmp(argv[1], "--write") == 0) {
    if (!tools::write_reference_docs(dir)) {
      std::fprintf(stderr, "cannot write the reference pages into %s\n", dir.c_str());
      return 1;
    }
    return 0;
  }
  int stale = 0;
  if (!same_as_file(dir + "/README.md", tools::reference_index_page())) {
    std::fprintf(stderr, "%s/README.md differs from the HELP table\n", dir.c_str());
    ++stale;
  }
  for (int i = 0; i < tools::kHelpCategoryCount; ++i) {
    const std::string name = tools::reference_file_name(tools::kHelpCategories[i]);
    if (!same_as_file(dir + "/" + name, tools::reference_category_page(tools::kHelpCategories[i]))) {
      std::fprintf(stderr, "%s/%s differs from the HELP table\n", dir.c_str(), name.c_str());
      ++stale;
    }
  }
  if (stale) std::fprintf(stderr, "regenerate with: cmake --build build --target reference_docs\n");
  return stale ? 1 : 0;
}
