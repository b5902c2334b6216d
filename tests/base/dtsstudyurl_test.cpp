#include "common/base/dtsstudyurl.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/stackutils.h"
#include "common/os/osnetwork.h"

namespace {

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

const BDateTime kWhen("20240315 143005");

// Every field as one text, to compare two objects at once.
std::string Fields(const DTSStudyURL& u) {
  return S(u.host()) + "|" + S(u.path()) + "|" + S(u.suid()) + "|" +
         std::to_string(u.type()) + "|" + S(u.patientId()) + "|" +
         std::to_string(u.equivalenceValue()) + "|" +
         S(u.timestamp().ToString()) + "|" +
         (u.goldServerOverride() ? "1" : "0") + "|" + S(u.ETAG()) + "|" +
         S(u.version()) + "|" + S(u.otherParams());
}

// The message of the BadlyFormedUrl that `fn` throws, "" when none.
template <typename Fn>
std::string Thrown(Fn fn) {
  try {
    fn();
  } catch (const BadlyFormedUrl& e) {
    return e.what();
  }
  return "";
}

// Leaves the virtual host name set while it lives.
struct VirtualHost {
  explicit VirtualHost(const char* name) { Kelvane::setVirtualHostName(name); }
  ~VirtualHost() { Kelvane::setVirtualHostName(""); }
};

TEST(DTSStudyURL, ParseRejectsMalformedURLsWithTheirMessage) {
  const char* rows[][2] = {
      {"dts://host:104?p=x", DTSStudyURL::kPortNumber},
      {"dts://host/dir?p=x", DTSStudyURL::kDirectPathname},
      {"dts://host:1/d?p=x", DTSStudyURL::kDirectPathname},  // '/' first
      {"dts://host", DTSStudyURL::kMissingParameters},
      {"http://host?p=x", DTSStudyURL::kNotDtsUrl},
      {"dts:/", DTSStudyURL::kNotDtsUrl},
      {"", DTSStudyURL::kNotDtsUrl},
      {"dts://host?t=1&path", DTSStudyURL::kMissingPath},
      {"dts://host?p=&t=1", DTSStudyURL::kMissingPath},
  };
  const DTSStudyURL good("dts://keep?p=/k&suid=1.2&zz=9");
  for (const auto& r : rows) {
    SCOPED_TRACE(r[0]);
    DTSStudyURL u(good);
    EXPECT_EQ(r[1], Thrown([&] { u.parseURL(r[0]); }));
    // Nothing of the failed parse is kept.
    EXPECT_EQ(Fields(good), Fields(u));
    EXPECT_EQ(S(good.url()), S(u.url()));
  }
  EXPECT_EQ("Port number specification found in dts URL",
            Thrown([] { DTSStudyURL("dts://h:1?p=x"); }));
}

TEST(DTSStudyURL, ParseReadsEveryField) {
  VirtualHost local("PACS01");
  struct Row {
    const char* url;
    const char* fields;  // as Fields() prints them
    bool stable = true;  // regenerated and parsed again, the fields hold
  } rows[] = {
      {"DTS://Host?p=x&ts=20240315 143005",
       "host|x||0||0|03/15/2024 14:30:05.0000|0|||"},
      {"dts://h?P=/a/STACK/0001/1.2&S=1.2&V=3&T=270&N=5&GS=7&PID=Pat&"
       "ETAG=AbC&TS=20240315 143005",
       "h|/a/STACK|1.2|270|Pat|5|03/15/2024 14:30:05.0000|1|abc|3|"},
      {"dts://h?path=/x&suid=9&version=v2&ts=20240315 143005",
       "h|/x|9|0||0|03/15/2024 14:30:05.0000|0||v2|"},
      // An empty host is the local one.
      {"dts://?p=x&ts=20240315 143005",
       "pacs01|x||0||0|03/15/2024 14:30:05.0000|0|||"},
      // Numbers as the C runtime reads them.
      {"dts://h?p=x&t=-1&n=-1&gs=0x1&ts=20240315 143005",
       "h|x||4294967295||18446744073709551615|03/15/2024 14:30:05.0000|0|||",
       false},  // n prints as 18446744073709551615, which reads as 2^63-1
      {"dts://h?p=x&t=99999999999&n=99999999999999999999&ts=20240315 143005",
       "h|x||2147483647||9223372036854775807|03/15/2024 14:30:05.0000|0|||"},
      // Unknown items in arrival order, items without '=' as they came.
      {"dts://h?zz=1&p=x&flag&aa=2=3&&ts=20240315 143005&",
       "h|x||0||0|03/15/2024 14:30:05.0000|0|||&zz=1&flag&aa=2=3&&"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.url);
    DTSStudyURL u(r.url);
    EXPECT_EQ(r.fields, Fields(u));
    EXPECT_EQ(r.url, S(u.url()));  // the text as given
    DTSStudyURL again(u.encodeParams(), u.host());
    EXPECT_EQ(r.stable, Fields(u) == Fields(again)) << Fields(again);
  }
}

TEST(DTSStudyURL, MissingTimestampIsNow) {
  const BDateTime before = BDateTime::Now();
  DTSStudyURL u("dts://h?p=x");
  const BDateTime after = BDateTime::Now();
  // The text form keeps whole seconds only; compare at that precision.
  EXPECT_GE(S(u.timestamp().ToString()).substr(0, 19),
            S(before.ToString()).substr(0, 19));
  EXPECT_LE(S(u.timestamp().ToString()).substr(0, 19),
            S(after.ToString()).substr(0, 19));
}

TEST(DTSStudyURL, GeneratedTextHasTheFixedOrder) {
  DTSStudyURL full("/data/x", "Node7", "1.2.3", SINGLE_SERVER_KORVEN, "PAT1",
                   42, kWhen, true, "ABC");
  EXPECT_EQ(
      "dts://node7?p=/data/x&t=270&v=&ts=03/15/2024 14:30:05.0000&n=42&gs=1&"
      "suid=1.2.3&pid=PAT1&etag=abc",
      S(full.url()));
  EXPECT_EQ(S(full.encodeParams()), S(full.allParams()));

  DTSStudyURL bare("/data/x", "n", "", CACHE, "", 0, kWhen, false, "");
  EXPECT_EQ("dts://n?p=/data/x&t=4&v=&ts=03/15/2024 14:30:05.0000&n=0&gs=0",
            S(bare.url()));

  // Version and unknown parameters come from a parse and are kept.
  DTSStudyURL parsed("dts://h?zz=1&v=7&p=/y&ts=20240315 143005");
  parsed.ETAG("E1");
  EXPECT_EQ(
      "dts://h?p=/y&t=0&v=7&ts=03/15/2024 14:30:05.0000&n=0&gs=0&etag=e1&zz=1",
      S(parsed.url()));
}

TEST(DTSStudyURL, SettersRegenerateAndKeepTheirQuirks) {
  VirtualHost local("Local9");
  DTSStudyURL u("/p", "h", "1.2", CACHE, "pid", 1, kWhen, false, "");
  u.suid("");  // an empty value keeps the old one
  u.patientId("");
  EXPECT_EQ("1.2", S(u.suid()));
  EXPECT_EQ("pid", S(u.patientId()));
  const std::string before = Fields(u);
  EXPECT_EQ(DTSStudyURL::kInvalidPath, Thrown([&] { u.path(""); }));
  EXPECT_EQ(before, Fields(u));

  u.type(ARCHIVE);
  u.equivalenceValue(18446744073709551615ull);
  u.host("");
  u.ETAG("XyZ");
  u.timestamp(BDateTime("20240101 000000"));
  EXPECT_EQ(
      "dts://local9?p=/p&t=8&v=&ts=01/01/2024 00:00:00.0000&"
      "n=18446744073709551615&gs=0&suid=1.2&pid=pid&etag=xyz",
      S(u.url()));

  DTSStudyURL empty;
  EXPECT_EQ(DTSStudyURL::kInvalidPath, Thrown([&] { empty.encodeParams(); }));
  EXPECT_EQ(DTSStudyURL::kInvalidPath, Thrown([] {
              DTSStudyURL("", "h", "", 0, "", 0, kWhen, false, "");
            }));
}

TEST(DTSStudyURL, TimestampKeepsWholeSecondsOnly) {
  // The text form prints milliseconds in four digits (250 ms as ".0250"),
  // which reads back as a fraction of a second: 25 ms.
  DTSStudyURL u("/p", "h", "", 0, "", 0, BDateTime("20240315 143005.25"), false,
                "");
  DTSStudyURL back(u.url());
  EXPECT_EQ(25, back.timestamp().GetTime().GetMilliSecond());
  EXPECT_EQ(S(u.timestamp().ToString()).substr(0, 19),
            S(back.timestamp().ToString()).substr(0, 19));
}

TEST(DTSStudyURL, RandomFieldsSurviveGenerateParseGenerate) {
  std::mt19937 rng(7);
  const std::string alphabet =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-/ ^";
  auto text = [&](size_t max) {
    std::string s(rng() % (max + 1), ' ');
    for (char& c : s) c = alphabet[rng() % alphabet.size()];
    return s;
  };
  for (int i = 0; i < 2000; ++i) {
    const std::string path = "/v" + text(40);
    // A path holding "stack" is cut back on parsing (tested above).
    if (S(StackUtils::extractStackPath(path.c_str())) != path) continue;
    const std::string host = "h" + std::to_string(i);
    const BDateTime when(static_cast<ACE_INT64>(rng() % 2000000000));
    const ACE_UINT64 n = (ACE_UINT64{rng()} << 31) ^ rng();
    DTSStudyURL made(path.c_str(), host.c_str(), text(30).c_str(), rng(),
                     text(20).c_str(), n, when, rng() & 1, text(16).c_str());
    DTSStudyURL parsed(made.url());
    SCOPED_TRACE(S(made.url()));
    ASSERT_EQ(Fields(made), Fields(parsed));
    DTSStudyURL regenerated(parsed.encodeParams(), parsed.host());
    ASSERT_EQ(S(made.url()), S(regenerated.url()));
  }
}

TEST(DTSStudyURL, ModuleTypeTexts) {
  const std::pair<int, const char*> rows[] = {
      {3, "ENTERPRISE_IMAGE_DISTRIBUTION"},
      {66, "INTEGRATION"},
      {270, "SINGLE_SERVER_KORVEN"},
      {8192, "UDM_PREP_STORAGE"},
      {64, "UNSET"},
      {256, "UNSET"},
      {6, "UNSET"},
      {0, "UNSET"},
  };
  for (const auto& r : rows) {
    ACE_CString out("old");
    DTSStudyURL::convertModuleTypeToString(static_cast<ModuleType>(r.first),
                                           out);
    EXPECT_EQ(r.second, S(out)) << r.first;
  }
}

// ------------------------------------------------------- copies of a study

DTSStudyURL Loc(const std::string& id, unsigned type, ACE_UINT64 n = 0,
                const char* etag = "") {
  return DTSStudyURL(("/" + id).c_str(), "h", "1.2.3", type, "", n, kWhen,
                     false, etag);
}

std::string Ids(const std::vector<DTSStudyURL>& list) {
  std::string out;
  for (const DTSStudyURL& u : list) out += S(u.path()).substr(1) + " ";
  return out;
}

std::string Ids(const DTSStudyURL::LocationGroups& groups) {
  std::string out;
  for (const auto& g : groups) out += "[" + Ids(*g) + "]";
  return out;
}

TEST(DTSStudyCopies, GoldIsTheFirstOfTheStrongestKind) {
  struct Row {
    std::vector<unsigned> types;
    const char* gold;  // id, "" when none
  } rows[] = {
      {{}, ""},
      {{CACHE, ARCHIVE}, "1"},
      {{ARCHIVE, CACHE}, "0"},
      {{ARCHIVE, ARCHIVE}, "0"},
      {{CACHE, SINGLE_SERVER_KORVEN}, "1"},  // 270 counts as an archive
      {{SINGLE_SERVER_KORVEN, UDM_STORAGE_SERVER}, "1"},
      {{INTEGRATION, CACHE}, "1"},  // 66 only at the processing step
      {{VESTRA, INTEGRATION}, "1"},
      {{UDM_APP_SERVER, CACHE_FILTER}, "1"},
      {{CACHE, UDM_APP_SERVER}, "1"},
      {{UDM_PREP_STORAGE, DICOM_PROCESSING}, "1"},
      {{VESTRA, ARCHIVE_MIRROR, INFRASTRUCTURE, UDM_PREP_STORAGE}, ""},
  };
  for (const Row& r : rows) {
    std::vector<DTSStudyURL> list;
    for (unsigned t : r.types)
      list.push_back(Loc(std::to_string(list.size()), t));
    SCOPED_TRACE(Ids(list));
    DTSStudyURL gold = Loc("untouched", 0);
    EXPECT_EQ(r.gold[0] != 0, DTSStudyURL::selectGoldLocation(gold, list));
    EXPECT_EQ(r.gold[0] != 0 ? std::string("/") + r.gold : "/untouched",
              S(gold.path()));
  }
}

TEST(DTSStudyCopies, CountByModuleMask) {
  const std::vector<DTSStudyURL> list = {
      Loc("a", ARCHIVE),     Loc("b", DICOM_PROCESSING),     Loc("c", CACHE),
      Loc("d", INTEGRATION), Loc("e", SINGLE_SERVER_KORVEN), Loc("f", VESTRA)};
  DTSStudyURL found = Loc("none", 0);
  EXPECT_EQ(4u, DTSStudyURL::checkForStudyOnModuleType(
                    found, static_cast<ModuleType>(6), list));
  EXPECT_EQ("/b", S(found.path()));
  EXPECT_EQ(2u, DTSStudyURL::checkForStudyOnModuleType(found, ARCHIVE, list));
  EXPECT_EQ("/a", S(found.path()));
  DTSStudyURL kept = Loc("none", 0);
  EXPECT_EQ(0u,
            DTSStudyURL::checkForStudyOnModuleType(kept, UDM_APP_SERVER, list));
  EXPECT_EQ("/none", S(kept.path()));
}

TEST(DTSStudyCopies, ProcessingCopiesLeadEachGroup) {
  DTSStudyURL::LocationGroups groups;
  DTSStudyURL::sortMergeLocations(groups);  // nothing to do
  groups.emplace_back(new std::vector<DTSStudyURL>{
      Loc("a", CACHE), Loc("b", DICOM_PROCESSING), Loc("c", ARCHIVE),
      Loc("d", INTEGRATION), Loc("e", SINGLE_SERVER_KORVEN), Loc("f", VESTRA)});
  groups.emplace_back(new std::vector<DTSStudyURL>());
  groups.emplace_back(new std::vector<DTSStudyURL>{Loc("g", ARCHIVE)});
  DTSStudyURL::sortMergeLocations(groups);
  EXPECT_EQ("[b d e a c f ][][g ]", Ids(groups));
}

TEST(DTSStudyCopies, MergeConditionGroupsEquivalentCopies) {
  struct In {
    const char* id;
    unsigned type;
    ACE_UINT64 n;
    const char* etag;
  };
  struct Row {
    std::vector<In> locations;
    bool merge;
    const char* groups;
  } rows[] = {
      {{}, false, ""},
      {{{"a", ARCHIVE, 5, ""}}, false, ""},
      {{{"a", ARCHIVE, 5, ""}, {"b", CACHE, 5, ""}, {"c", 66, 5, ""}},
       false,
       "[c a b ]"},
      {{{"a", CACHE, 7, ""},
        {"b", DICOM_PROCESSING, 5, ""},
        {"c", SINGLE_SERVER_KORVEN, 7, ""}},
       true,
       "[b ][c a ]"},
      {{{"a", ARCHIVE, 1, "x"}, {"b", CACHE, 2, "x"}}, false, "[a b ]"},
      {{{"a", ARCHIVE, 1, ""}, {"b", CACHE, 1, "x"}}, true, "[a ][b ]"},
      {{{"a", CACHE, 0, "b"}, {"b", ARCHIVE, 0, "a"}, {"c", 66, 0, "b"}},
       true,
       "[b ][c a ]"},
  };
  for (const Row& r : rows) {
    std::vector<DTSStudyURL> list;
    for (const In& in : r.locations)
      list.push_back(Loc(in.id, in.type, in.n, in.etag));
    SCOPED_TRACE(Ids(list));
    DTSStudyURL::LocationGroups groups;
    EXPECT_EQ(r.merge, DTSStudyURL::detectMergeCondition(list, groups));
    EXPECT_EQ(r.groups, Ids(groups));

    std::vector<DTSStudyURL> representatives = {Loc("old", 0)};
    EXPECT_EQ(r.merge,
              DTSStudyURL::detectMergeCondition(representatives, list));
    std::string firsts;
    if (r.merge) {
      for (const auto& g : groups)
        firsts += S(g->front().path()).substr(1) + " ";
    }
    EXPECT_EQ(firsts, Ids(representatives));
  }
}

TEST(DTSStudyCopies, MergeCountsOnlyTheGroupsItForms) {
  DTSStudyURL::LocationGroups groups;
  groups.emplace_back(new std::vector<DTSStudyURL>{Loc("old", CACHE)});
  const std::vector<DTSStudyURL> list = {Loc("a", CACHE, 3),
                                         Loc("b", DICOM_PROCESSING, 3)};
  EXPECT_FALSE(DTSStudyURL::detectMergeCondition(list, groups));
  EXPECT_EQ("[old ][b a ]", Ids(groups));
}

}  // namespace
