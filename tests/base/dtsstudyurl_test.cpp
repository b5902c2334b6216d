#include "common/base/dtsstudyurl.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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

TEST(DTSStudyURL, ParseReadsEveryFieldOrRejectsWithTheMessage) {
  VirtualHost local("PACS01");
  const std::string kTs = "03/15/2024 14:30:05.0000";
  struct Row {
    const char* url;
    std::string fields;  // as Fields() prints them, or the error message
    bool stable = true;  // regenerated and parsed again, the fields hold
  } rows[] = {
      {"DTS://Host?p=x&ts=20240315 143005", "host|x||0||0|" + kTs + "|0|||"},
      {"dts://h?P=/a/STACK/0001/1.2&S=1.2&V=3&T=270&N=5&GS=7&PID=Pat&"
       "ETAG=AbC&TS=20240315 143005",
       "h|/a/STACK|1.2|270|Pat|5|" + kTs + "|1|abc|3|"},
      {"dts://?p=x&ts=20240315 143005",  // an empty host is the local one
       "pacs01|x||0||0|" + kTs + "|0|||"},
      // Numbers as the C runtime reads them; n = -1 prints as 2^64-1, which
      // reads back as 2^63-1.
      {"dts://h?p=x&t=-1&n=-1&gs=0x1&ts=20240315 143005",
       "h|x||4294967295||18446744073709551615|" + kTs + "|0|||", false},
      {"dts://h?p=x&t=99999999999&n=99999999999999999999&ts=20240315 143005",
       "h|x||2147483647||9223372036854775807|" + kTs + "|0|||"},
      // Four digits of milliseconds are read as a fraction of a second.
      {"dts://h?p=x&ts=03/15/2024 14:30:05.0250",
       "h|x||0||0|03/15/2024 14:30:05.0025|0|||", false},
      // Unknown items in arrival order, items without '=' as they came.
      {"dts://h?zz=1&p=x&flag&aa=2=3&&ts=20240315 143005&",
       "h|x||0||0|" + kTs + "|0|||&zz=1&flag&aa=2=3&&"},
      {"dts://host:104?p=x", "Port number specification found in dts URL"},
      {"dts://host:1/d?p=x", DTSStudyURL::kDirectPathname},  // '/' first
      {"dts://host", DTSStudyURL::kMissingParameters},
      {"http://host?p=x", DTSStudyURL::kNotDtsUrl},
      {"dts://host?t=1&path", DTSStudyURL::kMissingPath},
      {"dts://host?p=&t=1", DTSStudyURL::kMissingPath},
  };
  const DTSStudyURL good("dts://keep?p=/k&suid=1.2&zz=9");
  for (const Row& r : rows) {
    SCOPED_TRACE(r.url);
    DTSStudyURL u(good);
    const std::string error = Thrown([&] { u.parseURL(r.url); });
    if (!error.empty()) {
      EXPECT_EQ(r.fields, error);
      EXPECT_EQ(Fields(good), Fields(u));  // nothing of it is kept
      EXPECT_EQ(S(good.url()), S(u.url()));
      continue;
    }
    EXPECT_EQ(r.fields, Fields(u));
    EXPECT_EQ(r.url, S(u.url()));  // the text as given
    DTSStudyURL again(u.encodeParams(), u.host());
    EXPECT_EQ(r.stable, Fields(u) == Fields(again)) << Fields(again);
  }
}

TEST(DTSStudyURL, MissingTimestampIsNow) {
  const std::string before = S(BDateTime::Now().ToString()).substr(0, 19);
  const std::string got = S(DTSStudyURL("dts://h?p=x").timestamp().ToString());
  EXPECT_LE(before, got.substr(0, 19));
  EXPECT_GE(S(BDateTime::Now().ToString()).substr(0, 19), got.substr(0, 19));
}

TEST(DTSStudyURL, GeneratedTextHasTheFixedOrder) {
  VirtualHost local("Local9");
  DTSStudyURL full("/data/x", "Node7", "1.2.3", SINGLE_SERVER_KORVEN, "PAT1",
                   42, kWhen, true, "ABC");
  // Version and unknown parameters come from a parse and are kept.
  DTSStudyURL parsed("dts://h?zz=1&v=7&p=/y&ts=20240315 143005");
  parsed.ETAG("E1");
  // Every setter regenerates; an empty suid or patient id keeps the old one.
  DTSStudyURL set("/p", "h", "1.2", CACHE, "pid", 1, kWhen, false, "");
  set.suid("");
  set.patientId("");
  set.type(ARCHIVE);
  set.equivalenceValue(18446744073709551615ull);
  set.host("");
  set.timestamp(BDateTime("20240101 000000"));
  set.ETAG("XyZ");
  const std::pair<const DTSStudyURL*, const char*> rows[] = {
      {&full,
       "dts://node7?p=/data/x&t=270&v=&ts=03/15/2024 14:30:05.0000&n=42&gs=1&"
       "suid=1.2.3&pid=PAT1&etag=abc"},
      {&parsed,
       "dts://h?p=/y&t=0&v=7&ts=03/15/2024 "
       "14:30:05.0000&n=0&gs=0&etag=e1&zz=1"},
      {&set,
       "dts://local9?p=/p&t=8&v=&ts=01/01/2024 00:00:00.0000&"
       "n=18446744073709551615&gs=0&suid=1.2&pid=pid&etag=xyz"},
  };
  for (const auto& r : rows) EXPECT_EQ(r.second, S(r.first->url()));

  const std::string before = Fields(set);
  EXPECT_EQ(DTSStudyURL::kInvalidPath, Thrown([&] { set.path(""); }));
  EXPECT_EQ(before, Fields(set));
  EXPECT_EQ(DTSStudyURL::kInvalidPath,
            Thrown([] { DTSStudyURL().encodeParams(); }));
}

TEST(DTSStudyURL, RandomFieldsSurviveGenerateParseGenerate) {
  std::mt19937 rng(7);  // no 'k': a path holding "stack" is cut on parsing
  const std::string alphabet =
      "abcdefghijlmnopqrstuvwxyzABCDEFGHIJLMNOPQRSTUVWXYZ0123456789._-/ ^";
  auto text = [&](size_t max) {
    std::string s(rng() % (max + 1), ' ');
    for (char& c : s) c = alphabet[rng() % alphabet.size()];
    return s;
  };
  for (int i = 0; i < 500; ++i) {
    const std::string path = "/v" + text(40), host = "h" + std::to_string(i);
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
  std::string all;
  for (int type : {3, 66, 8192, 6}) {
    ACE_CString out("old");
    DTSStudyURL::convertModuleTypeToString(static_cast<ModuleType>(type), out);
    all += S(out) + " ";
  }
  EXPECT_EQ("ENTERPRISE_IMAGE_DISTRIBUTION INTEGRATION UDM_PREP_STORAGE UNSET ",
            all);
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
      {{ARCHIVE, ARCHIVE}, "0"},
      {{CACHE, SINGLE_SERVER_KORVEN}, "1"},  // 270 counts as an archive
      {{SINGLE_SERVER_KORVEN, UDM_STORAGE_SERVER}, "1"},
      {{INTEGRATION, CACHE}, "1"},  // 66 only at the processing step
      {{UDM_APP_SERVER, CACHE_FILTER}, "1"},
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
  // The first match is handed out; without one `found` is left alone.
  const std::pair<unsigned, const char*> rows[] = {
      {6, "4 /b"}, {ARCHIVE, "2 /a"}, {UDM_APP_SERVER, "0 /a"}};
  for (const auto& r : rows) {
    const unsigned long n = DTSStudyURL::checkForStudyOnModuleType(
        found, static_cast<ModuleType>(r.first), list);
    EXPECT_EQ(r.second, std::to_string(n) + " " + S(found.path())) << r.first;
  }
}

TEST(DTSStudyCopies, MergeConditionGroupsEquivalentCopies) {
  struct Row {
    bool merge;
    const char* groups;  // processing copies lead each group
    std::vector<DTSStudyURL> locations;
    bool preset = false;  // a group is there before: it is not counted
  } rows[] = {
      {false, "", {Loc("a", ARCHIVE, 5)}},
      {false,
       "[c a b ]",
       {Loc("a", ARCHIVE, 5), Loc("b", CACHE, 5), Loc("c", 66, 5)}},
      {true,
       "[b ][c a ]",
       {Loc("a", CACHE, 7), Loc("b", DICOM_PROCESSING, 5),
        Loc("c", SINGLE_SERVER_KORVEN, 7)}},
      {false, "[a b ]", {Loc("a", ARCHIVE, 1, "x"), Loc("b", CACHE, 2, "x")}},
      {true, "[a ][b ]", {Loc("a", ARCHIVE, 1), Loc("b", CACHE, 1, "x")}},
      {true,
       "[b ][c a ]",
       {Loc("a", CACHE, 0, "b"), Loc("b", ARCHIVE, 0, "a"),
        Loc("c", 66, 0, "b")}},
      {false,
       "[old ][b a ]",
       {Loc("a", CACHE, 3), Loc("b", DICOM_PROCESSING, 3)},
       true},
  };
  for (Row& r : rows) {
    SCOPED_TRACE(Ids(r.locations));
    DTSStudyURL::LocationGroups groups;
    if (r.preset)
      groups.emplace_back(new std::vector<DTSStudyURL>{Loc("old", 0)});
    EXPECT_EQ(r.merge, DTSStudyURL::detectMergeCondition(r.locations, groups));
    EXPECT_EQ(r.groups, Ids(groups));

    std::vector<DTSStudyURL> representatives = {Loc("old", 0)};
    EXPECT_EQ(r.merge,
              DTSStudyURL::detectMergeCondition(representatives, r.locations));
    std::string firsts;
    for (const auto& g : groups) firsts += S(g->front().path()).substr(1) + " ";
    EXPECT_EQ(r.merge ? firsts : "", Ids(representatives));
  }
}

}  // namespace
