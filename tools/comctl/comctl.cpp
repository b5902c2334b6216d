// comctl: the operator's tool for a storage installation.
//
//   comctl [--json] <command> [arguments]   (--json may also follow the
//   command)
//
// Every command prints plain text, or one JSON object with --json, and
// exits 0; bad input prints a message to stderr and exits 2, a failure of
// the operation itself exits 1.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <ace/Log_Msg.h>

#include "common/base/bdatetime.h"
#include "common/base/debugtrigger.h"
#include "common/base/dtsstudyurl.h"
#include "common/base/stackutils.h"
#include "common/base/tagmapper.h"
#include "common/base/uidgenerator.h"
#include "common/namedevent/namedevent.h"
#include "common/os/configstore.h"
#include "common/os/systeminfo.h"

namespace {

const char kStopEvent[] = "Global\\KelvaneAllStop";

// Output of one command: ordered fields, printed as "name: value" lines or
// as a JSON object. Numbers and booleans go into JSON unquoted.
class Output {
 public:
  void Text(const std::string& name, const std::string& value) {
    fields_.push_back({name, Quote(value)});
    plain_.push_back({name, value});
  }
  void Raw(const std::string& name, const std::string& json,
           const std::string& plain) {
    fields_.push_back({name, json});
    plain_.push_back({name, plain});
  }
  void Number(const std::string& name, unsigned long long value) {
    Raw(name, std::to_string(value), std::to_string(value));
  }
  void Bool(const std::string& name, bool value) {
    Raw(name, value ? "true" : "false", value ? "yes" : "no");
  }
  void Print(bool json) const {
    if (json) {
      std::string out = "{";
      for (size_t i = 0; i < fields_.size(); ++i)
        out += (i ? ", " : "") + Quote(fields_[i].first) + ": " +
               fields_[i].second;
      std::printf("%s}\n", out.c_str());
    } else {
      for (auto& f : plain_)
        std::printf("%s: %s\n", f.first.c_str(), f.second.c_str());
    }
  }
  static std::string Quote(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
      if (c == '"' || c == '\\') {
        out += '\\';
        out += static_cast<char>(c);
      } else if (c < 0x20) {
        char buf[8];
        std::snprintf(buf, sizeof buf, "\\u%04x", c);
        out += buf;
      } else {
        out += static_cast<char>(c);
      }
    }
    return out + "\"";
  }

 private:
  std::vector<std::pair<std::string, std::string>> fields_, plain_;
};

int Usage(const char* message) {
  std::fprintf(stderr, "comctl: %s (comctl --help lists the commands)\n",
               message);
  return 2;
}

struct Command {
  const char* name;
  const char* usage;
  const char* help;
  int (*run)(const std::vector<std::string>& args, bool json);
};

int StackPath(const std::vector<std::string>& args, bool json) {
  if (args.size() != 2) return Usage("stack-path needs ROOT and UID");
  if (!UIDGenerator::IsValid(args[1].c_str()))
    return Usage(("not a valid UID: \"" + args[1] + "\"").c_str());
  ACE_CString path =
      StackUtils::generateStudyPath(args[0].c_str(), args[1].c_str());
  if (!json) {
    std::printf("%s\n", path.c_str());
    return 0;
  }
  Output out;
  out.Text("uid", args[1]);
  out.Text("bucket", StackUtils::suidToStackFolder(args[1].c_str()).c_str());
  out.Number("hash", StackUtils::pjwHash(args[1].c_str()));
  out.Text("path", path.c_str());
  out.Text("dts", StackUtils::getMetaFilePath(path).c_str());
  out.Print(true);
  return 0;
}

void Describe(const DTSStudyURL& url, Output& out) {
  ACE_CString typeName;
  DTSStudyURL::convertModuleTypeToString(static_cast<ModuleType>(url.type()),
                                         typeName);
  out.Text("url", url.url().c_str());
  out.Text("host", url.host().c_str());
  out.Text("path", url.path().c_str());
  out.Text("suid", url.suid().c_str());
  out.Text("patientId", url.patientId().c_str());
  out.Number("type", url.type());
  out.Text("typeName", typeName.c_str());
  out.Text("version", url.version().c_str());
  out.Text("timestamp", url.timestamp().ToString().c_str());
  out.Number("equivalence", url.equivalenceValue());
  out.Bool("goldOverride", url.goldServerOverride());
  out.Text("etag", url.ETAG().c_str());
}

bool ParseUnsigned(const std::string& text, unsigned long long& out) {
  if (text.empty() || text[0] == '-') return false;
  char* end = nullptr;
  errno = 0;
  out = std::strtoull(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0';
}

int Url(const std::vector<std::string>& args, bool json) {
  Output out;
  try {
    if (args.size() == 1 && args[0].compare(0, 2, "--") != 0) {
      Describe(DTSStudyURL(ACE_CString(args[0].c_str())), out);
    } else {
      std::string path, host, suid, pid, etag;
      unsigned long long type = ARCHIVE, equivalence = 0;
      for (size_t i = 0; i < args.size(); i += 2) {
        if (i + 1 >= args.size())
          return Usage(("missing value of " + args[i]).c_str());
        const std::string& v = args[i + 1];
        if (args[i] == "--path")
          path = v;
        else if (args[i] == "--host")
          host = v;
        else if (args[i] == "--suid")
          suid = v;
        else if (args[i] == "--pid")
          pid = v;
        else if (args[i] == "--etag")
          etag = v;
        else if (args[i] == "--type") {
          if (!ParseUnsigned(v, type) || type > 0xFFFFFFFFull)
            return Usage(("bad --type: " + v).c_str());
        } else if (args[i] == "--equivalence") {
          if (!ParseUnsigned(v, equivalence))
            return Usage(("bad --equivalence: " + v).c_str());
        } else {
          return Usage(("unknown option of url: " + args[i]).c_str());
        }
      }
      if (path.empty())
        return Usage("url needs a URL, or --path and other fields");
      for (const std::string* s : {&path, &host, &suid, &pid, &etag})
        if (s->find_first_of("&=?") != std::string::npos)
          return Usage(("a field may not hold '&', '=' or '?': " + *s).c_str());
      Describe(DTSStudyURL(path.c_str(), host.c_str(), suid.c_str(),
                           static_cast<unsigned>(type), pid.c_str(),
                           equivalence, BDateTime::Now(), false, etag.c_str()),
               out);
    }
  } catch (const BadlyFormedUrl& e) {
    std::fprintf(stderr, "comctl: bad study URL: %s\n", e.what());
    return 2;
  }
  out.Print(json);
  return 0;
}

int Gold(const std::vector<std::string>& args, bool json) {
  if (args.empty()) return Usage("gold needs at least one URL");
  std::vector<DTSStudyURL> locations;
  try {
    for (auto& a : args) locations.emplace_back(ACE_CString(a.c_str()));
  } catch (const BadlyFormedUrl& e) {
    std::fprintf(stderr, "comctl: bad study URL: %s\n", e.what());
    return 2;
  }
  DTSStudyURL gold;
  bool found = DTSStudyURL::selectGoldLocation(gold, locations);
  std::vector<DTSStudyURL> copy(locations), representatives;
  bool merge = DTSStudyURL::detectMergeCondition(representatives, copy);
  Output out;
  out.Text("gold", found ? gold.url().c_str() : "");
  out.Bool("merge", merge);
  out.Number("locations", locations.size());
  std::string list = "[", plain;
  for (size_t i = 0; i < representatives.size(); ++i) {
    list += (i ? ", " : "") + Output::Quote(representatives[i].url().c_str());
    plain += (i ? " " : "") + std::string(representatives[i].url().c_str());
  }
  out.Raw("mergeFrom", list + "]", plain);
  out.Print(json);
  return found ? 0 : 1;
}

int Uid(const std::vector<std::string>& args, bool json) {
  std::string root = "1.2.826.0.1.3680043.10";
  if (args.size() == 2 && args[0] == "--root")
    root = args[1];
  else if (!args.empty())
    return Usage("uid takes only --root ROOT");
  if (!UIDGenerator::IsValid(root.c_str()))
    return Usage(("not a valid UID root: " + root).c_str());
  if (!UIDGenerator::InitializeMAC(root.c_str()) &&
      !UIDGenerator::InitializeAlternate(
          static_cast<unsigned long>(::time(nullptr)),
          static_cast<unsigned long>(::clock()), root.c_str()))
    return 1;
  try {
    ACE_CString uid = UIDGenerator::GenerateUID();
    Output out;
    out.Text("uid", uid.c_str());
    if (json)
      out.Print(true);
    else
      std::printf("%s\n", uid.c_str());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "comctl: %s\n", e.what());
    return 2;
  }
  return 0;
}

// "(0010,0010)", "0010,0010" or "00100010".
bool ParseTag(std::string text, unsigned& tag) {
  if (text.size() >= 2 && text.front() == '(' && text.back() == ')')
    text = text.substr(1, text.size() - 2);
  if (text.size() == 9 && text[4] == ',') text.erase(4, 1);
  if (text.size() != 8 ||
      text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    return false;
  tag = static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 16));
  return true;
}

int Tag(const std::vector<std::string>& args, bool json) {
  if (args.size() != 1) return Usage("tag needs one TAG or KEYWORD");
  TagMapper* dict = TagMapper::Instance();
  if (dict == nullptr) return 1;
  unsigned tag = 0;
  if (!ParseTag(args[0], tag)) {
    unsigned long found = 0;
    if (!dict->FindTagByKeyword(args[0].c_str(), found)) {
      std::fprintf(stderr, "comctl: no tag or keyword \"%s\"\n",
                   args[0].c_str());
      return 2;
    }
    tag = static_cast<unsigned>(found);
  }
  const char* keyword = dict->FindKeyword(tag);
  const char* description = dict->FindDescription(tag);
  if (keyword == nullptr && description == nullptr) {
    std::fprintf(stderr, "comctl: unknown tag %s\n", args[0].c_str());
    return 2;
  }
  char text[16];
  std::snprintf(text, sizeof text, "(%04X,%04X)", tag >> 16, tag & 0xFFFF);
  unsigned short vr = TagMapper::DCMType2VR(dict->FindVR(tag));
  char letters[3] = {static_cast<char>(vr & 0xFF), static_cast<char>(vr >> 8),
                     0};
  const char* vm = dict->FindVM(tag);
  Output out;
  out.Text("tag", text);
  out.Text("keyword", keyword ? keyword : "");
  out.Text("description", description ? description : "");
  out.Text("vr", vr ? letters : "");
  out.Text("vm", vm ? vm : "");
  out.Bool("retired", dict->IsRetired(tag));
  out.Print(json);
  return 0;
}

int Stop(const std::vector<std::string>& args, bool json) {
  if (!args.empty()) return Usage("stop takes no arguments");
  try {
    Common::NamedEvent event(kStopEvent);
    if (event.signal() != 0) {
      std::fprintf(stderr, "comctl: cannot signal %s\n", kStopEvent);
      return 1;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "comctl: %s\n", e.what());
    return 1;
  }
  Output out;
  out.Text("signalled", kStopEvent);
  out.Print(json);
  return 0;
}

int Debug(const std::vector<std::string>& args, bool json) {
  if (args.size() != 1 || (args[0] != "on" && args[0] != "off"))
    return Usage("debug needs on or off");
  ACE_CString file = Kelvane::ConfigStore::FilePath();
  const char* value = args[0] == "on" ? "1" : "0";
  if (Kelvane::ConfigStore::WriteString(file.c_str(), DebugTrigger::kSection,
                                        DebugTrigger::kValue, value) != 0) {
    std::fprintf(stderr, "comctl: cannot write %s: %s\n", file.c_str(),
                 std::strerror(errno));
    return 1;
  }
  Output out;
  out.Text("file", file.c_str());
  out.Text("debug", args[0]);
  out.Print(json);
  return 0;
}

int SysInfo(const std::vector<std::string>& args, bool json) {
  std::string path = "/";
  if (args.size() == 2 && args[0] == "--path")
    path = args[1];
  else if (!args.empty())
    return Usage("sysinfo takes only --path PATH");
  unsigned totalKB = 0, availKB = 0, load = 0, totalVirtualKB = 0,
           availVirtualKB = 0;
  SystemInfo::SystemMemoryInfo(totalKB, availKB, load, totalVirtualKB,
                               availVirtualKB);
  ACE_UINT64 total = 0, free = 0;
  errno = 0;
  SystemInfo::DiskInfo(path.c_str(), total, free);
  if (total == 0) {
    std::fprintf(stderr, "comctl: cannot read the file system of %s\n",
                 path.c_str());
    return 2;
  }
  ACE_CString os;
  SystemInfo::OSName(os);
  std::string osName = os.c_str();
  while (!osName.empty() && osName.back() == ' ') osName.pop_back();
  Output out;
  out.Number("memoryTotalKB", totalKB);
  out.Number("memoryAvailableKB", availKB);
  out.Number("memoryLoad", load);
  out.Text("diskPath", path);
  out.Number("diskTotalBytes", total);
  out.Number("diskFreeBytes", free);
  out.Text("os", osName);
  out.Text("osVersion", SystemInfo::OSVersion().c_str());
  out.Text("processor", SystemInfo::ProcessorInfo().c_str());
  out.Print(json);
  return 0;
}

const Command kCommands[] = {
    {"stack-path", "stack-path ROOT UID",
     "Prints the folder of the study UID under the storage root ROOT.",
     StackPath},
    {"url",
     "url URL | url --path P [--host H] [--suid UID] [--type N] [--pid ID] "
     "[--etag E] "
     "[--equivalence N]",
     "Parses a dts:// study URL and prints its fields, or builds one from "
     "fields.",
     Url},
    {"gold", "gold URL...",
     "Prints the gold copy among the study URLs and whether the copies need a "
     "merge.",
     Gold},
    {"uid", "uid [--root ROOT]", "Generates a new UID under ROOT.", Uid},
    {"tag", "tag TAG|KEYWORD",
     "Looks up a DICOM tag, (gggg,eeee) or ggggeeee, or a keyword in the "
     "dictionary.",
     Tag},
    {"stop", "stop",
     "Signals the machine-wide stop event; every service stops.", Stop},
    {"debug", "debug on|off",
     "Turns debug logging of running services on or off in the configuration "
     "file.",
     Debug},
    {"sysinfo", "sysinfo [--path PATH]",
     "Prints memory, the disk holding PATH (/ by default), the OS name and the "
     "processor.",
     SysInfo},
};

void Help(FILE* to) {
  std::fprintf(to, "usage: comctl [--json] COMMAND [ARGS]\n\ncommands:\n");
  for (auto& c : kCommands) std::fprintf(to, "  %-12s %s\n", c.name, c.help);
  std::fprintf(to, "\ncomctl COMMAND --help shows a command's arguments.\n");
}

}  // namespace

int main(int argc, char** argv) {
  // The library's own log lines are for services, not for this tool's output.
  ACE_LOG_MSG->priority_mask(LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
                             ACE_Log_Msg::PROCESS);
  bool json = false;
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--json") == 0)
      json = true;
    else
      args.push_back(argv[i]);
  }
  if (args.empty()) {
    Help(stderr);
    return 2;
  }
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    Help(stdout);
    return 0;
  }
  for (auto& c : kCommands) {
    if (args[0] != c.name) continue;
    std::vector<std::string> rest(args.begin() + 1, args.end());
    for (auto& a : rest) {
      if (a == "--help" || a == "-h") {
        std::printf("usage: comctl [--json] %s\n%s\n", c.usage, c.help);
        return 0;
      }
    }
    return c.run(rest, json);
  }
  return Usage(("unknown command \"" + args[0] + "\"").c_str());
}
