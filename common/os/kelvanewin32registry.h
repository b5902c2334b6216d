// Read-only access to sections of the installation's configuration, for
// programs that only read their settings.
//
// The configuration lives in the INI file of ConfigStore (configstore.h),
// which stands where the machine registry hive stands on other systems. A
// KelvaneWin32Registry is an ACE configuration (ACE_Configuration_Heap)
// holding what the file held when the object was made; it reads the file
// once and needs nothing but read access to it. open_section_readonly opens
// an existing section, of one level or several separated by '\', with each
// level matched without regard to case as registry keys are; it never
// creates a section, and the file is never written. Values are then read
// with the ordinary ACE calls (get_string_value, enumerate_values, ...).
// Anything the object is asked to change stays in memory: nothing is ever
// saved back to the file.
//
// Thread safety: an object is used by one thread at a time.
//
//   KelvaneWin32Registry registry;  // the machine's configuration file
//   ACE_Configuration_Section_Key key;
//   ACE_TString debug;
//   if (registry.open_section_readonly(registry.root_section(),
//           "Software\\Kelvane\\QuillonServer\\System", key) == 0 &&
//       registry.get_string_value(key, "Debug", debug) == 0)
//     ...
#ifndef COM_COMMON_OS_KELVANEWIN32REGISTRY_H_
#define COM_COMMON_OS_KELVANEWIN32REGISTRY_H_

#include <ace/Configuration.h>
#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT KelvaneWin32Registry : public ACE_Configuration_Heap {
 public:
  // The machine's configuration: the file ConfigStore::FilePath() names.
  KelvaneWin32Registry();
  // The configuration held in the INI file `file`. A missing or unreadable
  // file gives a configuration without sections.
  explicit KelvaneWin32Registry(const ACE_CString& file);
  ~KelvaneWin32Registry() override;

  // Opens the existing section `subSection` below `base` for reading and
  // stores it in `result`. -1, with `result` untouched and nothing created,
  // when the name is not valid for ACE (empty, a leading '\', '[' or ']'),
  // `base` is no section of this configuration, or a level is missing;
  // errno ENOMEM when the key cannot be allocated. 0 on success.
  virtual int open_section_readonly(const ACE_Configuration_Section_Key& base,
                                    const char* subSection,
                                    ACE_Configuration_Section_Key& result);

 private:
  KelvaneWin32Registry(const KelvaneWin32Registry&) = delete;
  KelvaneWin32Registry& operator=(const KelvaneWin32Registry&) = delete;
};

#endif  // COM_COMMON_OS_KELVANEWIN32REGISTRY_H_
