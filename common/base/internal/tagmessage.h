// The fixed-column message dictionary format that TagMapper::WriteTagsToFile
// reads, and the table line it writes. Private to the library; tests use it.
#ifndef COM_COMMON_BASE_INTERNAL_TAGMESSAGE_H_
#define COM_COMMON_BASE_INTERNAL_TAGMESSAGE_H_

#include <cstddef>
#include <string>

#include "common/base/comexport.h"
#include "common/base/tagmapper.h"

namespace Kelvane {
namespace tagmessage {

// Where WriteTagsToFile reads from and writes to, relative to the working
// directory.
inline constexpr const char kMessageFile[] =
    "../../../ThirdParty/MC3ADV/mc3msg/Message.txt";
inline constexpr const char kTableFile[] = "tags.cpp";

// Longest line read at once, terminator included.
inline constexpr std::size_t kMaxLine = 8192;

// First line of a generated table source.
inline constexpr const char kTableOpening[] =
    "const char* const TagMapper::m_GETable[] = {\n";
// Its last line: the terminating entry and the end of the statement.
inline constexpr const char kTableClosing[] = "0,0,0};\n";

struct MessageLine {
  unsigned int tag;
  std::string description;
  TagMapper::eDCMType type;
};

// The VR named by the two letters at `vr` (need not be terminated), or UN
// when they name no eDCMType.
COM_EXPORT TagMapper::eDCMType TypeOfVR(const char* vr);

// Reads one line (its line terminator may still be attached). False when
// the line is shorter than 8 characters or has no ',' at index 4; fields
// past the end of the line are read as empty.
COM_EXPORT bool ParseMessageLine(const char* line, MessageLine* out);

// "  \"%X\", \"%s\", \"%d\",\n" for one entry.
COM_EXPORT std::string FormatTableLine(unsigned int tag,
                                       const char* description,
                                       TagMapper::eDCMType type);

}  // namespace tagmessage
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_TAGMESSAGE_H_
