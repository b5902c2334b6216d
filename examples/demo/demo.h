// The demo program is made of sections, each in its own file, registered
// with COM_DEMO_SECTION and run in the order of their numbers.
#ifndef COM_EXAMPLES_DEMO_DEMO_H_
#define COM_EXAMPLES_DEMO_DEMO_H_

#include <string>

namespace demo {

// Shared by all sections: a scratch folder that main() removes at the end.
const std::string& ScratchDir();

typedef void (*SectionFn)();
struct Section {
  Section(int order, const char* title, SectionFn fn);
};

}  // namespace demo

#define COM_DEMO_SECTION(order, title, fn) \
  static ::demo::Section demo_section_##fn(order, title, fn)

#endif  // COM_EXAMPLES_DEMO_DEMO_H_
