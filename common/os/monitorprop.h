// MonProp and MonitorProp: the displays attached to the machine, from the
// kernel's DRM connectors under /sys/class/drm.
//
// Each connector folder ("card0-HDMI-A-1") has a "status" file
// ("connected", "disconnected", "unknown") and an "edid" file holding the
// display's EDID (empty when nothing is attached). The base block of the
// EDID gives the maker's three-letter PNP code ("DEL"), the product code,
// the serial number, the model name of the name descriptor, the image size
// in millimetres (the preferred timing's size; the base block's size in
// centimetres times ten when the timing gives none) and the preferred mode
// (the first detailed timing). A connector whose EDID is missing or fails
// its header or checksum is still listed, with `edidValid` false.
//
// Connectors are listed in a stable order: by card number, then by
// connector name, numbers in names compared by value ("DP-2" before
// "DP-10"). A machine without a GPU (the usual server) has no
// /sys/class/drm or no connectors in it; that is zero displays, not an
// error.
//
// Thread safety: no state; callable from any thread.
//
// Example:
//   std::vector<MonProp> displays;
//   MonitorProp::Enumerate(displays, true);
//   for (const MonProp& d : displays)
//     printf("%s: %s %s\n", d.connector.c_str(), d.manufacturer.c_str(),
//            d.modelName.c_str());
#ifndef COM_COMMON_OS_MONITORPROP_H_
#define COM_COMMON_OS_MONITORPROP_H_

#include <vector>

#include <ace/SString.h>

#include "common/base/comexport.h"

struct MonProp {
  ACE_CString connector;  // "card0-HDMI-A-1"
  ACE_CString status;     // "connected", "disconnected", "unknown"
  bool edidValid = false;
  ACE_CString manufacturer;  // PNP code, "DEL"
  unsigned productCode = 0;
  unsigned serialNumber = 0;     // the numeric serial of the base block
  ACE_CString serialText;        // the serial descriptor, "" when absent
  ACE_CString modelName;         // the name descriptor, "" when absent
  unsigned manufactureYear = 0;  // 0 when not given
  unsigned edidVersion = 0, edidRevision = 0;
  unsigned widthMm = 0, heightMm = 0;                // 0 when not given
  unsigned preferredWidth = 0, preferredHeight = 0;  // pixels
  unsigned preferredRefreshHz = 0;  // rounded; 0 without a detailed timing
};

class COM_EXPORT MonitorProp {
 public:
  // Replaces `out` by the connectors (with `connectedOnly`, those whose
  // status is "connected") in the order above. Returns how many; 0 when the
  // machine has no DRM connectors. -1, with a record at LM_ERROR and `out`
  // empty, only when /sys/class/drm exists and cannot be listed.
  static int Enumerate(std::vector<MonProp>& out, bool connectedOnly);

  // Decodes an EDID base block (at least 128 bytes) into the EDID fields of
  // `out`. False, leaving `out` untouched, when the header, the checksum or
  // the length is wrong.
  static bool ParseEdid(const unsigned char* data, size_t size, MonProp& out);
};

#endif  // COM_COMMON_OS_MONITORPROP_H_
