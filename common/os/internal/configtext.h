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

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_OS_INTERNAL_CONFIGTEXT_H_
