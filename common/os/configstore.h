// The installation's configuration file, which stands where the machine
// registry hive stands on other systems.
//
// The file is an INI file: $KELVANE_CONFIG when that variable is set and not
// empty, else /etc/kelvane/kelvane.ini. A registry key is a section of the
// same backslash-separated name, and each level of the name is matched
// without regard to case, as registry keys are:
//
//   [SOFTWARE\Kelvane]
//   LogRoot = /var/log/kelvane
//   ServerPath = /opt/kelvane
//
//   [Software\Kelvane\QuillonServer\System]
//   Debug = 1
//
// The text is read with ACE_Ini_ImpExp into an ACE_Configuration_Heap, where
// each backslash-separated level becomes a nested section. Values are
// strings; quotes around a value are removed; a comment is a line starting
// with ';' or '#' (text after a value is part of the value). Value names are
// also matched without regard to case. Two spellings of the same level
// ("SOFTWARE" and "Software") name one section; the first spelling in the
// file is the one the heap keeps. Lines the importer cannot take (a value
// before the first section, a line without '=') are skipped rather than
// ending the import. A missing or unreadable file reads as a file without
// keys.
//
// Thread safety: the functions keep no state; a ConfigStore object is not
// shared between threads without a lock of the caller's.
//
//   ACE_CString root;
//   if (Kelvane::ReadConfigString("SOFTWARE\\Kelvane", "LogRoot", root) == 0)
//     ...  // root holds the value
#ifndef COM_COMMON_OS_CONFIGSTORE_H_
#define COM_COMMON_OS_CONFIGSTORE_H_

#include <memory>

#include <ace/Configuration.h>
#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

class COM_EXPORT ConfigStore {
 public:
  // "/etc/kelvane/kelvane.ini".
  static const char kDefaultFile[];
  // "KELVANE_CONFIG".
  static const char kFileVariable[];

  // $KELVANE_CONFIG when set and not empty, else kDefaultFile.
  static ACE_CString FilePath();

  // Imports the INI file `file` into `config` (no existing data removed),
  // with the case folding and line filtering described above. Returns 0, or
  // -1 with errno set when the file cannot be read or the importer fails.
  static int ImportIni(ACE_Configuration& config, const char* file);

  // Opens the backslash-separated `path` below `base`, level by level,
  // comparing names without regard to case; nothing is created. An empty
  // path opens `base` itself; empty levels ("a\\\\b", a leading '\\') are
  // skipped. Returns 0, or -1 when a level is missing (`out` unchanged).
  static int OpenSection(ACE_Configuration& config,
                         const ACE_Configuration_Section_Key& base,
                         const char* path, ACE_Configuration_Section_Key& out);

  // Reads the string value `name` of `key`, the name compared without regard
  // to case. Returns 0, or -1 when there is no such value or it is not a
  // string (`value` unchanged).
  static int GetString(ACE_Configuration& config,
                       const ACE_Configuration_Section_Key& key,
                       const char* name, ACE_CString& value);

  // Sets the string value `name` of the section `key` in the INI file
  // `file` (FilePath() when null), creating the file, the section and the
  // value as needed; with a null or empty `name` only the section is made
  // sure of. The rest of the file is kept byte for byte (see
  // internal::SetIniValue). The file is replaced atomically: the new text
  // goes to a temporary file in the same folder, which is renamed over it,
  // keeping its mode; a reader sees the old or the new file, never a part.
  // Writers serialise on an exclusive flock of the file's folder, so two
  // processes writing at once both land. Nothing is written when the text
  // would not change. Returns 0, or -1 with errno set.
  static int WriteString(const char* file, const char* key, const char* name,
                         const char* value);

  ConfigStore();

  // Replaces the content with that of `file` (FilePath() for the overload
  // without argument). Returns 0, or -1 with errno set when the file cannot
  // be read; the store is then empty.
  int Load();
  int Load(const ACE_CString& file);

  // OpenSection below the root.
  int OpenKey(const char* path, ACE_Configuration_Section_Key& out);

  ACE_Configuration_Heap& heap() { return *heap_; }

 private:
  ConfigStore(const ConfigStore&) = delete;
  ConfigStore& operator=(const ConfigStore&) = delete;

  std::unique_ptr<ACE_Configuration_Heap> heap_;
};

// Reads the current file (ConfigStore::FilePath()) and the value `name` of
// the key `key`. Returns 0 with `value` set; 1 when the key exists but the
// value does not; -1 when the key (or the file) does not exist. `value` is
// changed only on 0.
COM_EXPORT int ReadConfigString(const char* key, const char* name,
                                ACE_CString& value);

}  // namespace Kelvane

#endif  // COM_COMMON_OS_CONFIGSTORE_H_
