// Reads the package-metadata note that ELF binaries carry in place of a
// version resource.
//
// A binary linked with `--package-metadata=<json>` holds a note whose owner
// is "FDO" and whose type is 0xcafe1a7e (section ".note.package", in a
// PT_NOTE segment); its descriptor is a NUL-terminated JSON object such as
//   {"type":"deb","os":"debian","name":"com","version":"1.0.0"}
// SystemInfo::ApplicationVersion and the file-system helpers read the
// "version" member from it.
//
// Both 32- and 64-bit ELF files of either byte order are understood. The
// program headers are searched first (the note of a linked binary lives in
// a loadable note segment); when they hold no package note, the section
// headers are searched, which also covers relocatable objects. Note areas
// larger than 1 MiB are ignored.
//
// Failure convention: 0 on success, -1 with errno set:
//   the error of open(2)/pread(2)  the file cannot be opened or read;
//   ENOEXEC  not an ELF file (short, wrong magic, unknown class or order);
//   EBADMSG  an ELF file whose header tables or notes run past its end, or
//            a descriptor that is not a JSON object;
//   ENODATA  no package note, or the JSON object has no such string member.
//
// Thread safety: the functions keep no state; call them from any thread.
//
// Example:
//   ACE_CString version;
//   if (Kelvane::PackageNoteVersion("/usr/lib/libcom.so.1", version) == 0)
//     printf("%s\n", version.c_str());   // "1.0.0"
#ifndef COM_COMMON_OS_INTERNAL_PACKAGENOTE_H_
#define COM_COMMON_OS_INTERNAL_PACKAGENOTE_H_

#include <cstddef>

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

// The JSON text of the package note of the ELF file at `path`, without its
// terminating NULs. `json` is left unchanged on failure.
COM_EXPORT int ReadPackageNote(const char* path, ACE_CString& json);

// As ReadPackageNote, over an ELF image of `size` bytes held in memory.
COM_EXPORT int FindPackageNote(const void* image, size_t size,
                               ACE_CString& json);

// The string member `key` of the top-level JSON object in `json[0..len)`,
// with its escapes decoded (\uXXXX as UTF-8; an unpaired surrogate becomes
// U+FFFD). A member whose value is not a string counts as missing (ENODATA);
// a text that is not one well-formed object, or nests deeper than 64
// levels, gives EBADMSG. `value` is left unchanged on failure.
COM_EXPORT int PackageNoteField(const char* json, size_t len, const char* key,
                                ACE_CString& value);

// ReadPackageNote followed by PackageNoteField(..., "version", ...).
COM_EXPORT int PackageNoteVersion(const char* path, ACE_CString& version);

}  // namespace Kelvane

#endif  // COM_COMMON_OS_INTERNAL_PACKAGENOTE_H_
