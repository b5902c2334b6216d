// Text rules of the configuration file import, kept apart from the file and
// ACE calls so that tests can feed them made-up text.
#ifndef COM_COMMON_OS_INTERNAL_CONFIGTEXT_H_
#define COM_COMMON_OS_INTERNAL_CONFIGTEXT_H_

#include <cstddef>
#include <string>
#include <vector>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

// Lines this long or longer are dropped: the importer reads a line into a
// 4096-byte buffer.
constexpr size_t kMaxIniLine = 4000;

// The non-empty levels of a section path, split at '\' and '/', each with
// blanks trimmed: " A\\\\b /c" gives "A", "b", "c".
COM_EXPORT std::vector<std::string> SplitSectionPath(const std::string& path);

// The INI text rewritten for the importer: comments, blank and overlong
// lines, values outside any section and lines without a name and '=' are
// dropped; every section header is rewritten with '\' between its levels and
// each level in the first spelling the text used for it (compared without
// regard to case).
COM_EXPORT std::string CanonicalIniText(const std::string& text);

// The INI text with the value `name` of the section `section` set to
// `value`, everything else kept byte for byte (comments, other sections and
// values, spelling). Sections and names are matched without regard to case
// and section levels as SplitSectionPath splits them. Every line of that
// name in every header of that section is rewritten, keeping the name's
// spelling, so no stale copy can win; without one, "name=value" goes after
// the last value of the first such section, and without the section a new
// "[section]" with the value is appended. An empty `name` only makes sure
// that the section exists.
COM_EXPORT std::string SetIniValue(const std::string& text,
                                   const std::string& section,
                                   const std::string& name,
                                   const std::string& value);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_OS_INTERNAL_CONFIGTEXT_H_
