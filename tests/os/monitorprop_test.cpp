#include "common/os/monitorprop.h"

#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/monitorproprules.h"

#include "support/tempfolder.h"

namespace {

// EDID base blocks of three monitors, byte for byte as their connectors
// would show them (the first announces one extension block).
const unsigned char kDellU2415[] = {
    0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x10, 0xAC, 0xB8, 0xA0,
    0x53, 0x32, 0x4B, 0x4C, 0x0A, 0x1A, 0x01, 0x04, 0xA5, 0x34, 0x20, 0x78,
    0x2A, 0xEE, 0x91, 0xA3, 0x54, 0x4C, 0x99, 0x26, 0x0F, 0x50, 0x54, 0x21,
    0x08, 0x00, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01,
    0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x28, 0x3C, 0x80, 0xA0, 0x70, 0xB0,
    0x23, 0x40, 0x30, 0x20, 0x35, 0x00, 0x06, 0x44, 0x21, 0x00, 0x00, 0x1E,
    0x00, 0x00, 0x00, 0xFF, 0x00, 0x43, 0x46, 0x56, 0x39, 0x4E, 0x37, 0x42,
    0x33, 0x41, 0x4C, 0x32, 0x55, 0x0A, 0x00, 0x00, 0x00, 0xFC, 0x00, 0x44,
    0x45, 0x4C, 0x4C, 0x20, 0x55, 0x32, 0x34, 0x31, 0x35, 0x0A, 0x20, 0x20,
    0x00, 0x00, 0x00, 0xFD, 0x00, 0x38, 0x4C, 0x1E, 0x51, 0x11, 0x00, 0x0A,
    0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x01, 0xED,
};
const unsigned char kLgUltraFine[] = {
    0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x1E, 0x6D, 0x08, 0x5B,
    0xF4, 0xE2, 0x01, 0x00, 0x14, 0x1D, 0x01, 0x04, 0xA5, 0x3C, 0x22, 0x78,
    0x2A, 0xEE, 0x91, 0xA3, 0x54, 0x4C, 0x99, 0x26, 0x0F, 0x50, 0x54, 0x21,
    0x08, 0x00, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01,
    0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x4D, 0xD0, 0x00, 0xA0, 0xF0, 0x70,
    0x3E, 0x80, 0x30, 0x20, 0x35, 0x00, 0x55, 0x50, 0x21, 0x00, 0x00, 0x1E,
    0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFC, 0x00, 0x4C,
    0x47, 0x20, 0x55, 0x4C, 0x54, 0x52, 0x41, 0x46, 0x49, 0x4E, 0x45, 0x0A,
    0x00, 0x00, 0x00, 0xFF, 0x00, 0x39, 0x30, 0x33, 0x4E, 0x54, 0x4B, 0x46,
    0x39, 0x5A, 0x35, 0x34, 0x33, 0x0A, 0x00, 0x3B,
};
const unsigned char kSamsungSyncMaster[] = {
    0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x4C, 0x2D, 0x15, 0x02,
    0x30, 0x5A, 0x38, 0x48, 0x2C, 0x12, 0x01, 0x03, 0x80, 0x26, 0x1E, 0x78,
    0x2A, 0xEE, 0x91, 0xA3, 0x54, 0x4C, 0x99, 0x26, 0x0F, 0x50, 0x54, 0x21,
    0x08, 0x00, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01,
    0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0xBC, 0x34, 0x00, 0x98, 0x51, 0x00,
    0x2A, 0x40, 0x30, 0x20, 0x35, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1E,
    0x00, 0x00, 0x00, 0xFC, 0x00, 0x53, 0x79, 0x6E, 0x63, 0x4D, 0x61, 0x73,
    0x74, 0x65, 0x72, 0x0A, 0x20, 0x20, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02,
};
const unsigned char kCeaExtension[] = {
    0x02, 0x03, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xF7,
};

std::string Bytes(const unsigned char* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

struct Expected {
  const char* maker;
  unsigned product;
  unsigned serial;
  const char* serialText;
  const char* model;
  unsigned year, version, revision;
  unsigned widthMm, heightMm;
  unsigned width, height, hz;
};

const Expected kDell = {
    "DEL", 0xA0B8, 0x4C4B3253, "CFV9N7B3AL2U", "DELL U2415", 2016, 1,
    4,     518,    324,        1920,           1200,         60};
const Expected kLg = {
    "GSM", 0x5B08, 0x0001E2F4, "903NTKF9Z543", "LG ULTRAFINE", 2019, 1,
    4,     597,    336,        3840,           2160,           60};
// No size in its timing: the base block's 38 x 30 cm stand in.
const Expected kSamsung = {"SAM", 0x0215, 0x48385A30, "",  "SyncMaster",
                           2008,  1,      3,          380, 300,
                           1280,  1024,   75};

void ExpectDisplay(const Expected& e, const MonProp& m) {
  EXPECT_TRUE(m.edidValid);
  EXPECT_STREQ(e.maker, m.manufacturer.c_str());
  EXPECT_EQ(e.product, m.productCode);
  EXPECT_EQ(e.serial, m.serialNumber);
  EXPECT_STREQ(e.serialText, m.serialText.c_str());
  EXPECT_STREQ(e.model, m.modelName.c_str());
  EXPECT_EQ(e.year, m.manufactureYear);
  EXPECT_EQ(e.version, m.edidVersion);
  EXPECT_EQ(e.revision, m.edidRevision);
  EXPECT_EQ(e.widthMm, m.widthMm);
  EXPECT_EQ(e.heightMm, m.heightMm);
  EXPECT_EQ(e.width, m.preferredWidth);
  EXPECT_EQ(e.height, m.preferredHeight);
  EXPECT_EQ(e.hz, m.preferredRefreshHz);
}

TEST(MonitorProp, ParsesRealEdidBlocks) {
  const struct {
    const char* name;
    std::string edid;
    const Expected* expected;
  } rows[] = {
      {"dell", Bytes(kDellU2415, 128), &kDell},
      {"dell with its extension block",
       Bytes(kDellU2415, 128) + Bytes(kCeaExtension, 128), &kDell},
      {"lg", Bytes(kLgUltraFine, 128), &kLg},
      {"samsung", Bytes(kSamsungSyncMaster, 128), &kSamsung},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    MonProp m;
    m.modelName = "stale";
    ASSERT_TRUE(MonitorProp::ParseEdid(
        reinterpret_cast<const unsigned char*>(r.edid.data()), r.edid.size(),
        m));
    ExpectDisplay(*r.expected, m);
  }
}

TEST(MonitorProp, RejectsDamagedEdid) {
  std::string checksum = Bytes(kLgUltraFine, 128);
  checksum[0x40] ^= 0x01;
  std::string header = Bytes(kLgUltraFine, 128);
  header[7] = 0x01;  // header ends in 0x00
  header[127] -= 1;  // checksum made right again
  std::string swapped = Bytes(kCeaExtension, 128) + Bytes(kDellU2415, 128);
  const struct {
    const char* name;
    std::string edid;
  } rows[] = {
      {"one bit flipped", checksum},
      {"bad header, good checksum", header},
      {"one byte short", Bytes(kDellU2415, 127)},
      {"extension first", swapped},
      {"empty", ""},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    MonProp m;
    m.modelName = "kept";
    EXPECT_FALSE(MonitorProp::ParseEdid(
        reinterpret_cast<const unsigned char*>(r.edid.data()), r.edid.size(),
        m));
    EXPECT_FALSE(m.edidValid);
    EXPECT_STREQ("kept", m.modelName.c_str());
  }
  MonProp m;
  EXPECT_FALSE(MonitorProp::ParseEdid(nullptr, 128, m));
}

TEST(MonitorProp, ConnectorOrder) {
  const struct {
    const char* a;
    const char* b;
    bool before;
  } rows[] = {
      {"card0-DP-2", "card0-DP-10", true},
      {"card0-DP-10", "card0-DP-2", false},
      {"card1-eDP-1", "card10-DP-1", true},
      {"card2-VGA-1", "card10-DP-1", true},
      {"card0-DP-1", "card0-HDMI-A-1", true},
      {"card0-DP-1", "card0-DP-1", false},
      {"card0-DP-1", "card0-DP-1-1", true},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.a) + " " + r.b);
    EXPECT_EQ(r.before, MonitorPropRules::ConnectorBefore(r.a, r.b));
  }
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
  // Created out of order, with the other entries a DRM folder holds.
  Connector("card10-DP-1", "connected", Bytes(kSamsungSyncMaster, 128));
  Connector("card0-VGA-1", "connected", "not an edid at all");
  Connector("card0-HDMI-A-1", "disconnected", "");
  Connector("card0-DP-10", "connected",
            Bytes(kDellU2415, 128) + Bytes(kCeaExtension, 128));
  Connector("card1-eDP-1", "unknown", "");
  Connector("card0-DP-2", "connected", Bytes(kLgUltraFine, 128));
  std::filesystem::create_directories(drm_ / "card0");
  std::filesystem::create_directories(drm_ / "renderD128");
  std::filesystem::create_directories(drm_ / "card1-");
  std::ofstream(drm_ / "version") << "drm 1.1.0 20060810\n";

  std::vector<MonProp> all;
  ASSERT_EQ(6, MonitorPropRules::EnumerateAt(drm_.c_str(), all, false));
  const char* order[] = {"card0-DP-2",  "card0-DP-10", "card0-HDMI-A-1",
                         "card0-VGA-1", "card1-eDP-1", "card10-DP-1"};
  const char* status[] = {"connected", "connected", "disconnected",
                          "connected", "unknown",   "connected"};
  for (size_t i = 0; i < all.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_STREQ(order[i], all[i].connector.c_str());
    EXPECT_STREQ(status[i], all[i].status.c_str());
  }
  ExpectDisplay(kLg, all[0]);
  ExpectDisplay(kDell, all[1]);
  EXPECT_FALSE(all[2].edidValid);
  EXPECT_FALSE(all[3].edidValid);
  ExpectDisplay(kSamsung, all[5]);

  std::vector<MonProp> connected;
  ASSERT_EQ(4, MonitorPropRules::EnumerateAt(drm_.c_str(), connected, true));
  EXPECT_STREQ("card0-DP-2", connected[0].connector.c_str());
  EXPECT_STREQ("card0-DP-10", connected[1].connector.c_str());
  EXPECT_STREQ("card0-VGA-1", connected[2].connector.c_str());
  EXPECT_STREQ("card10-DP-1", connected[3].connector.c_str());
}

TEST_F(MonitorPropTree, NoGpuIsZeroDisplays) {
  std::vector<MonProp> out(1);
  EXPECT_EQ(0, MonitorPropRules::EnumerateAt(drm_.c_str(), out, true));
  EXPECT_TRUE(out.empty());
  std::filesystem::create_directories(drm_);
  EXPECT_EQ(0, MonitorPropRules::EnumerateAt(drm_.c_str(), out, false));
  // A file where the folder should be is no GPU either.
  std::ofstream(temp_.File("plain")) << "x";
  EXPECT_EQ(0, MonitorPropRules::EnumerateAt(temp_.File("plain").c_str(), out,
                                             false));
}

TEST(MonitorProp, ThisMachine) {
  // Whatever this machine has: the connectors whose status file says
  // "connected", or none at all on a headless machine.
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
