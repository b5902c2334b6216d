// A small report over what the library offers, as a server would use it.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <utility>

#include "demo.h"

namespace demo {
namespace {

std::multimap<int, std::pair<const char*, SectionFn>>& Sections() {
  static std::multimap<int, std::pair<const char*, SectionFn>> sections;
  return sections;
}

}  // namespace

Section::Section(int order, const char* title, SectionFn fn) {
  Sections().emplace(order, std::make_pair(title, fn));
}

const std::string& ScratchDir() {
  static const std::string dir = [] {
    std::string tmpl =
        (std::filesystem::temp_directory_path() / "com-demo-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) {
      std::perror("mkdtemp");
      std::exit(1);
    }
    return tmpl;
  }();
  return dir;
}

}  // namespace demo

int main() {
  std::printf("com demo: common components of the archive's servers\n");
  for (const auto& [order, section] : demo::Sections()) {
    std::printf("\n== %s\n", section.first);
    section.second();
  }
  std::error_code ec;
  std::filesystem::remove_all(demo::ScratchDir(), ec);
  std::printf("\ndone\n");
  return 0;
}
