// The copy operator: pumps what remains of an InputStream into an
// OutputStream.
//
//   InputFSStream in;
//   in.Open("/data/study.dcm");
//   OutputFSStream out;
//   out.Open("/data/copy.dcm", O_WRONLY | O_CREAT);
//   out << in;   // appends the whole file to copy.dcm
//
// Thread safety: as the two streams (one thread at a time for each).
#ifndef COM_COMMON_IOSTREAMS_STREAMCOPY_H_
#define COM_COMMON_IOSTREAMS_STREAMCOPY_H_

#include "common/base/comexport.h"
#include "common/iostreams/inputstream.h"
#include "common/iostreams/outputstream.h"

// Reads `in` from its current position until a read returns 0, writing
// each piece to `out` (pieces of at most 49152 bytes, through one scratch
// buffer). An empty `in` writes nothing. Exceptions of either stream pass
// through; what was copied before stays written.
COM_EXPORT void operator<<(OutputStream& out, InputStream& in);

#endif  // COM_COMMON_IOSTREAMS_STREAMCOPY_H_
