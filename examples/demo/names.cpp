#include <cstdio>
#include <exception>

#include "common/base/bpersonname.h"
#include "common/base/uidgenerator.h"

#include "demo.h"

namespace {

void Names() {
  // The hardware address of the first real adapter, else two fixed numbers
  // (a container with only loopback has no usable address).
  const char* root = "1.2.826.0.1.3680043.9";
  const bool mac = UIDGenerator::InitializeMAC(root);
  if (!mac) UIDGenerator::InitializeAlternate(1, 1, root);
  std::printf("UID method:          %s\n",
              mac ? "hardware address" : "caller's numbers");
  try {
    for (int i = 0; i < 3; ++i) {
      std::printf("minted UID:          %s\n",
                  UIDGenerator::GenerateUID().c_str());
    }
  } catch (const std::exception& e) {
    std::printf("minting failed:      %s\n", e.what());
  }

  const char* dicom[] = {"Doe^John^Q^Dr^Jr", "Yamada^Tarou"};
  for (const char* text : dicom) {
    BPersonName pn(text);
    std::printf("PN %-17s display '%s', with title '%s'\n", text,
                pn.GetDisplayName().c_str(),
                pn.GetDisplayNameWithTitle().c_str());
  }
  BPersonName typed;
  typed.FromDisplayName(" Roe , Jane ");
  std::printf("display ' Roe , Jane ' as DICOM: %s\n",
              typed.ToDICOMName().c_str());
}

}  // namespace

COM_DEMO_SECTION(35, "Person names and UIDs", Names);
