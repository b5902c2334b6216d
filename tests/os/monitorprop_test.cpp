#include "common/os/monitorprop.h"

#include <cstdio>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/monitorproprules.h"

#include "support/tempfolder.h"

namespace {

// Real EDID base blocks (the first announces one extension block).
const std::string kDell(
    "\x00\xFF\xFF\xFF\xFF\xFF\xFF\x00\x10\xAC\xB8\xA0\x53\x32\x4B\x4C\x0A\x1A"
    "\x01\x04\xA5\x34\x20\x78\x2A\xEE\x91\xA3\x54\x4C\x99\x26\x0F\x50\x54\x21"
    "\x08\x00\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01"
    "\x28\x3C\x80\xA0\x70\xB0\x23\x40\x30\x20\x35\x00\x06\x44\x21\x00\x00\x1E"
    "\x00\x00\x00\xFF\x00\x43\x46\x56\x39\x4E\x37\x42\x33\x41\x4C\x32\x55\x0A"
    "\x00\x00\x00\xFC\x00\x44\x45\x4C\x4C\x20\x55\x32\x34\x31\x35\x0A\x20\x20"
    "\x00\x00\x00\xFD\x00\x38\x4C\x1E\x51\x11\x00\x0A\x20\x20\x20\x20\x20\x20"
    "\x01\xED",
    128);
const std::string kLg(
    "\x00\xFF\xFF\xFF\xFF\xFF\xFF\x00\x1E\x6D\x08\x5B\xF4\xE2\x01\x00\x14\x1D"
    "\x01\x04\xA5\x3C\x22\x78\x2A\xEE\x91\xA3\x54\x4C\x99\x26\x0F\x50\x54\x21"
    "\x08\x00\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01"
    "\x4D\xD0\x00\xA0\xF0\x70\x3E\x80\x30\x20\x35\x00\x55\x50\x21\x00\x00\x1E"
    "\x00\x00\x00\x10\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
    "\x00\x00\x00\xFC\x00\x4C\x47\x20\x55\x4C\x54\x52\x41\x46\x49\x4E\x45\x0A"
    "\x00\x00\x00\xFF\x00\x39\x30\x33\x4E\x54\x4B\x46\x39\x5A\x35\x34\x33\x0A"
    "\x00\x3B",
    128);
const std::string kSamsung(
    "\x00\xFF\xFF\xFF\xFF\xFF\xFF\x00\x4C\x2D\x15\x02\x30\x5A\x38\x48\x2C\x12"
    "\x01\x03\x80\x26\x1E\x78\x2A\xEE\x91\xA3\x54\x4C\x99\x26\x0F\x50\x54\x21"
    "\x08\x00\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01\x01"
    "\xBC\x34\x00\x98\x51\x00\x2A\x40\x30\x20\x35\x00\x00\x00\x00\x00\x00\x1E"
    "\x00\x00\x00\xFC\x00\x53\x79\x6E\x63\x4D\x61\x73\x74\x65\x72\x0A\x20\x20"
    "\x00\x00\x00\x10\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
    "\x00\x00\x00\x10\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
    "\x00\x02",
    128);

std::string CeaExtension() {
  std::string b(128, '\0');
  b[0] = 0x02, b[1] = 0x03, b[2] = 0x04, b[127] = static_cast<char>(0xF7);
  return b;
}

std::string Fields(const MonProp& m) {
  if (!m.edidValid) return "invalid";
  char buf[256];
  std::snprintf(buf, sizeof buf,
                "%s %04X %08X '%s' '%s' %u v%u.%u %ux%umm %ux%u@%u",
                m.manufacturer.c_str(), m.productCode, m.serialNumber,
                m.serialText.c_str(), m.modelName.c_str(), m.manufactureYear,
                m.edidVersion, m.edidRevision, m.widthMm, m.heightMm,
                m.preferredWidth, m.preferredHeight, m.preferredRefreshHz);
  return buf;
}

const char kDellFields[] =
    "DEL A0B8 4C4B3253 'CFV9N7B3AL2U' 'DELL U2415' 2016 v1.4 518x324mm "
    "1920x1200@60";
const char kLgFields[] =
    "GSM 5B08 0001E2F4 '903NTKF9Z543' 'LG ULTRAFINE' 2019 v1.4 597x336mm "
    "3840x2160@60";
// No size in its timing: the base block's 38 x 30 cm stand in.
const char kSamsungFields[] =
    "SAM 0215 48385A30 '' 'SyncMaster' 2008 v1.3 380x300mm 1280x1024@75";

bool Parse(const std::string& edid, MonProp& m) {
  return MonitorProp::ParseEdid(
      reinterpret_cast<const unsigned char*>(edid.data()), edid.size(), m);
}

TEST(MonitorProp, ParsesRealEdidAndRejectsDamagedOnes) {
  std::string checksum = kLg;
  checksum[0x40] ^= 0x01;
  std::string header = kLg;
  header[7] = 0x01;  // header ends in 0x00
  header[127] -= 1;  // checksum made right again
  const struct {
    const char* name;
    std::string edid;
    const char* fields;  // nullptr: rejected, `m` untouched
  } rows[] = {
      {"dell", kDell, kDellFields},
      {"dell with its extension block", kDell + CeaExtension(), kDellFields},
      {"lg", kLg, kLgFields},
      {"samsung", kSamsung, kSamsungFields},
      {"one bit flipped", checksum, nullptr},
      {"bad header, good checksum", header, nullptr},
      {"one byte short", kDell.substr(0, 127), nullptr},
      {"extension first", CeaExtension() + kDell, nullptr},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    MonProp m;
    m.modelName = "kept";
    EXPECT_EQ(r.fields != nullptr, Parse(r.edid, m));
    EXPECT_EQ(r.fields ? r.fields : "invalid", Fields(m));
    if (!r.fields) {
      EXPECT_STREQ("kept", m.modelName.c_str());
    }
  }
}

std::string Names(const std::vector<MonProp>& all) {
  std::string out;
  for (const MonProp& m : all)
    out += std::string(m.connector.c_str()) + ":" + m.status.c_str() + " ";
  return out;
}

class MonitorPropTree : public ::testing::Test {
 protected:
  void Connector(const std::string& name, const char* status,
                 const std::string& edid) {
    const std::filesystem::path dir = drm_ / name;
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "status") << status << "\n";
    std::ofstream(dir / "edid", std::ios::binary) << edid;
  }
  testsupport::TempFolder temp_;
  std::filesystem::path drm_ = std::filesystem::path(temp_.path()) / "drm";
};

TEST_F(MonitorPropTree, ListsConnectorsInStableOrder) {
  std::vector<MonProp> all(1);  // no GPU: no displays, the list emptied
  EXPECT_EQ(0, MonitorPropRules::EnumerateAt(drm_.c_str(), all, false));
  EXPECT_TRUE(all.empty());
  // Out of order, beside the other entries of a DRM folder.
  Connector("card10-DP-1", "connected", kSamsung);
  Connector("card0-VGA-1", "connected", "not an edid at all");
  Connector("card0-HDMI-A-1", "disconnected", "");
  Connector("card0-DP-10", "connected", kDell + CeaExtension());
  Connector("card1-eDP-1", "unknown", "");
  Connector("card0-DP-2", "connected", kLg);
  std::filesystem::create_directories(drm_ / "renderD128");
  std::filesystem::create_directories(drm_ / "card1-");
  std::ofstream(drm_ / "version") << "drm 1.1.0 20060810\n";

  ASSERT_EQ(6, MonitorPropRules::EnumerateAt(drm_.c_str(), all, false));
  EXPECT_EQ(
      "card0-DP-2:connected card0-DP-10:connected card0-HDMI-A-1:disconnected "
      "card0-VGA-1:connected card1-eDP-1:unknown card10-DP-1:connected ",
      Names(all));
  EXPECT_EQ(kDellFields, Fields(all[1]));
  EXPECT_EQ("invalid", Fields(all[3]));

  std::vector<MonProp> connected;
  ASSERT_EQ(4, MonitorPropRules::EnumerateAt(drm_.c_str(), connected, true));
  EXPECT_EQ(
      "card0-DP-2:connected card0-DP-10:connected card0-VGA-1:connected "
      "card10-DP-1:connected ",
      Names(connected));
}

TEST(MonitorProp, ThisMachine) {
  int expected = 0;
  if (DIR* dir = ::opendir("/sys/class/drm")) {
    while (struct dirent* e = ::readdir(dir)) {
      std::ifstream status(std::string("/sys/class/drm/") + e->d_name +
                           "/status");
      std::string word;
      if (std::string(e->d_name).find('-') != std::string::npos &&
          (status >> word) && word == "connected")
        ++expected;
    }
    ::closedir(dir);
  }
  std::vector<MonProp> out;
  EXPECT_EQ(expected, MonitorProp::Enumerate(out, true));
  EXPECT_EQ(static_cast<size_t>(expected), out.size());
}

}  // namespace
