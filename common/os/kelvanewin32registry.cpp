#include "common/os/kelvanewin32registry.h"

#include <cerrno>
#include <new>

#include "common/os/configstore.h"

KelvaneWin32Registry::KelvaneWin32Registry()
    : KelvaneWin32Registry(Kelvane::ConfigStore::FilePath()) {}

KelvaneWin32Registry::KelvaneWin32Registry(const ACE_CString& file) {
  open();
  // A file that cannot be read is a hive without keys: every open fails.
  if (Kelvane::ConfigStore::ImportIni(*this, file.c_str()) != 0) {
    ACE_Configuration_Section_Key root = root_section();
    ACE_TString name;
    while (enumerate_sections(root, 0, name) == 0 &&
           remove_section(root, name.c_str(), true) == 0) {
    }
  }
}

KelvaneWin32Registry::~KelvaneWin32Registry() = default;

int KelvaneWin32Registry::open_section_readonly(
    const ACE_Configuration_Section_Key& base, const char* subSection,
    ACE_Configuration_Section_Key& result) {
  if (subSection == nullptr || validate_name(subSection, 1) != 0) return -1;
  // A key that belongs to no configuration has no internal key.
  if (get_internal_key(base) == nullptr) return -1;
  ACE_Configuration_Section_Key opened;
  try {
    if (Kelvane::ConfigStore::OpenSection(*this, base, subSection, opened) !=
        0) {
      return -1;
    }
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
  result = opened;
  return 0;
}
