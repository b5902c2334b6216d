#include "common/os/internal/packagenote.h"

#include <cstdint>
#include <cstring>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Kelvane {
namespace {

constexpr uint32_t kPackageNoteType = 0xcafe1a7e;
constexpr uint64_t kMaxNoteArea = 1u << 20;
constexpr int kMaxJsonDepth = 64;

// Random access to the bytes of an ELF image, in a file or in memory.
class Source {
 public:
  virtual ~Source() = default;
  virtual uint64_t Size() const = 0;
  // Reads exactly `len` bytes at `off`; false with errno set otherwise.
  virtual bool Read(uint64_t off, void* buf, size_t len) const = 0;
};

class MemorySource : public Source {
 public:
  MemorySource(const void* data, size_t size)
      : data_(static_cast<const unsigned char*>(data)), size_(size) {}
  uint64_t Size() const override { return size_; }
  bool Read(uint64_t off, void* buf, size_t len) const override {
    if (off > size_ || len > size_ - off) {
      errno = EBADMSG;
      return false;
    }
    if (len != 0) std::memcpy(buf, data_ + off, len);
    return true;
  }

 private:
  const unsigned char* data_;
  size_t size_;
};

class FileSource : public Source {
 public:
  FileSource(int fd, uint64_t size) : fd_(fd), size_(size) {}
  uint64_t Size() const override { return size_; }
  bool Read(uint64_t off, void* buf, size_t len) const override {
    if (off > size_ || len > size_ - off) {
      errno = EBADMSG;
      return false;
    }
    auto* p = static_cast<unsigned char*>(buf);
    while (len != 0) {
      ssize_t n = ::pread(fd_, p, len, static_cast<off_t>(off));
      if (n < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      if (n == 0) {  // the file shrank under us
        errno = EBADMSG;
        return false;
      }
      p += n;
      off += static_cast<uint64_t>(n);
      len -= static_cast<size_t>(n);
    }
    return true;
  }

 private:
  int fd_;
  uint64_t size_;
};

// Field decoding for either byte order.
class Decoder {
 public:
  explicit Decoder(bool bigEndian) : big_(bigEndian) {}
  uint64_t Get(const unsigned char* p, size_t width) const {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) {
      size_t idx = big_ ? i : width - 1 - i;
      v = (v << 8) | p[idx];
    }
    return v;
  }

 private:
  bool big_;
};

struct NoteArea {
  uint64_t offset;
  uint64_t size;
  uint64_t align;
};

// Walks the notes of one area. Returns 1 when the package note was found,
// 0 when the area holds none, -1 when the area is malformed.
int ScanNotes(const std::vector<unsigned char>& area, uint64_t align,
              const Decoder& dec, ACE_CString& json) {
  const uint64_t pad = align == 8 ? 8 : 4;
  auto roundUp = [pad](uint64_t v) { return (v + pad - 1) & ~(pad - 1); };
  const uint64_t size = area.size();
  uint64_t pos = 0;
  // The padding after the last descriptor may run past the area's end, so
  // `pos` can pass `size`.
  while (pos <= size && size - pos >= 12) {
    const unsigned char* h = area.data() + pos;
    uint64_t namesz = dec.Get(h, 4);
    uint64_t descsz = dec.Get(h + 4, 4);
    uint64_t type = dec.Get(h + 8, 4);
    // Name and descriptor start on the area's alignment, counted from the
    // note's start (the header is 12 bytes, so 8-aligned notes pad after
    // the name even when it is 4 bytes long).
    uint64_t nameOff = pos + 12;
    if (namesz > size) return -1;
    uint64_t descOff = pos + roundUp(12 + namesz);
    if (descOff > size || descsz > size - descOff) return -1;
    if (type == kPackageNoteType && namesz == 4 &&
        std::memcmp(area.data() + nameOff, "FDO", 4) == 0) {
      const char* desc = reinterpret_cast<const char*>(area.data() + descOff);
      size_t len = static_cast<size_t>(descsz);
      while (len != 0 && desc[len - 1] == '\0') --len;
      json.set(desc, len, true);
      return 1;
    }
    uint64_t next = pos + roundUp(descOff - pos + descsz);
    if (next <= pos) return -1;
    pos = next;
  }
  return 0;
}

int FindInSource(const Source& src, ACE_CString& json) {
  unsigned char ident[EI_NIDENT];
  if (src.Size() < EI_NIDENT) {
    errno = ENOEXEC;
    return -1;
  }
  if (!src.Read(0, ident, EI_NIDENT)) return -1;
  if (std::memcmp(ident, ELFMAG, SELFMAG) != 0) {
    errno = ENOEXEC;
    return -1;
  }
  const bool is64 = ident[EI_CLASS] == ELFCLASS64;
  if ((!is64 && ident[EI_CLASS] != ELFCLASS32) ||
      (ident[EI_DATA] != ELFDATA2LSB && ident[EI_DATA] != ELFDATA2MSB)) {
    errno = ENOEXEC;
    return -1;
  }
  const Decoder dec(ident[EI_DATA] == ELFDATA2MSB);
  const size_t ehsize = is64 ? sizeof(Elf64_Ehdr) : sizeof(Elf32_Ehdr);
  unsigned char eh[sizeof(Elf64_Ehdr)];
  if (!src.Read(0, eh, ehsize)) {
    if (errno == EBADMSG) errno = ENOEXEC;
    return -1;
  }
  const size_t w = is64 ? 8 : 4;  // width of addresses and offsets
  // e_phoff follows e_ident, e_type, e_machine, e_version and e_entry.
  const size_t phoffAt = EI_NIDENT + 8 + w;
  const uint64_t phoff = dec.Get(eh + phoffAt, w);
  const uint64_t shoff = dec.Get(eh + phoffAt + w, w);
  const size_t tail = phoffAt + 2 * w + 4 + 2;  // after e_flags, e_ehsize
  const uint64_t phentsize = dec.Get(eh + tail, 2);
  const uint64_t phnum = dec.Get(eh + tail + 2, 2);
  const uint64_t shentsize = dec.Get(eh + tail + 4, 2);
  const uint64_t shnum = dec.Get(eh + tail + 6, 2);

  // Program headers first, then sections; each table yields note areas.
  struct Table {
    uint64_t off, entsize, num, minEntsize;
    bool program;
  } tables[] = {
      {phoff, phentsize, phnum, is64 ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr),
       true},
      {shoff, shentsize, shnum, is64 ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr),
       false},
  };
  bool malformed = false;
  for (const Table& t : tables) {
    if (t.off == 0 || t.num == 0) continue;
    if (t.entsize < t.minEntsize || t.off > src.Size()) {
      malformed = true;
      continue;
    }
    std::vector<NoteArea> areas;
    unsigned char ent[sizeof(Elf64_Shdr)];
    for (uint64_t i = 0; i < t.num; ++i) {
      if (!src.Read(t.off + i * t.entsize, ent, t.minEntsize)) {
        if (errno != EBADMSG) return -1;
        malformed = true;
        break;
      }
      NoteArea a;
      if (t.program) {
        if (dec.Get(ent, 4) != PT_NOTE) continue;
        // 64-bit: p_type p_flags p_offset p_vaddr p_paddr p_filesz p_memsz
        // p_align; 32-bit: p_type p_offset p_vaddr p_paddr p_filesz p_memsz
        // p_flags p_align.
        a.offset = dec.Get(ent + (is64 ? 8 : 4), w);
        a.size = dec.Get(ent + (is64 ? 32 : 16), w);
        a.align = dec.Get(ent + (is64 ? 48 : 28), w);
      } else {
        if (dec.Get(ent + 4, 4) != SHT_NOTE) continue;
        // sh_name sh_type sh_flags sh_addr sh_offset sh_size sh_link sh_info
        // sh_addralign sh_entsize.
        a.offset = dec.Get(ent + 8 + 2 * w, w);
        a.size = dec.Get(ent + 8 + 3 * w, w);
        a.align = dec.Get(ent + 16 + 4 * w, w);
      }
      areas.push_back(a);
    }
    for (const NoteArea& a : areas) {
      if (a.size == 0 || a.size > kMaxNoteArea) continue;
      std::vector<unsigned char> buf(static_cast<size_t>(a.size));
      if (!src.Read(a.offset, buf.data(), buf.size())) {
        if (errno != EBADMSG) return -1;
        malformed = true;
        continue;
      }
      int r = ScanNotes(buf, a.align, dec, json);
      if (r == 1) return 0;
      if (r < 0) malformed = true;
    }
  }
  errno = malformed ? EBADMSG : ENODATA;
  return -1;
}

// A small JSON reader: just enough to pick a string member out of an object
// and to skip every other value correctly.
class JsonReader {
 public:
  JsonReader(const char* p, size_t len) : p_(p), end_(p + len) {}

  // 1 found, 0 missing, -1 malformed.
  int FindMember(const char* key, std::string& out) {
    SkipWs();
    if (!Eat('{')) return -1;
    int found = 0;
    SkipWs();
    if (!Eat('}')) {
      for (;;) {
        std::string name;
        SkipWs();
        if (!ParseString(&name)) return -1;
        SkipWs();
        if (!Eat(':')) return -1;
        SkipWs();
        if (found == 0 && name == key && Peek() == '"') {
          if (!ParseString(&out)) return -1;
          found = 1;
        } else if (!SkipValue(1)) {
          return -1;
        }
        SkipWs();
        if (Eat('}')) break;
        if (!Eat(',')) return -1;
      }
    }
    SkipWs();
    return p_ == end_ ? found : -1;
  }

 private:
  char Peek() const { return p_ < end_ ? *p_ : '\0'; }
  bool Eat(char c) {
    if (p_ < end_ && *p_ == c) {
      ++p_;
      return true;
    }
    return false;
  }
  void SkipWs() {
    while (p_ < end_ &&
           (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r'))
      ++p_;
  }
  static int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }
  bool Hex4(uint32_t* v) {
    if (end_ - p_ < 4) return false;
    uint32_t r = 0;
    for (int i = 0; i < 4; ++i) {
      int d = HexDigit(p_[i]);
      if (d < 0) return false;
      r = (r << 4) | static_cast<uint32_t>(d);
    }
    p_ += 4;
    *v = r;
    return true;
  }
  static void AppendUtf8(std::string* out, uint32_t cp) {
    if (cp < 0x80) {
      out->push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  // Parses a string at p_; appends its decoded text to `out` when given.
  bool ParseString(std::string* out) {
    if (!Eat('"')) return false;
    while (p_ < end_) {
      char c = *p_++;
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        if (out) out->push_back(c);
        continue;
      }
      if (p_ == end_) return false;
      char e = *p_++;
      char plain = 0;
      switch (e) {
        case '"':
          plain = '"';
          break;
        case '\\':
          plain = '\\';
          break;
        case '/':
          plain = '/';
          break;
        case 'b':
          plain = '\b';
          break;
        case 'f':
          plain = '\f';
          break;
        case 'n':
          plain = '\n';
          break;
        case 'r':
          plain = '\r';
          break;
        case 't':
          plain = '\t';
          break;
        case 'u': {
          uint32_t cp;
          if (!Hex4(&cp)) return false;
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            uint32_t lo;
            const char* save = p_;
            if (end_ - p_ >= 2 && p_[0] == '\\' && p_[1] == 'u' &&
                (p_ += 2, Hex4(&lo)) && lo >= 0xDC00 && lo <= 0xDFFF) {
              cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
            } else {
              p_ = save;
              cp = 0xFFFD;
            }
          } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            cp = 0xFFFD;
          }
          if (out) AppendUtf8(out, cp);
          continue;
        }
        default:
          return false;
      }
      if (out) out->push_back(plain);
    }
    return false;
  }
  bool SkipLiteral(const char* word) {
    size_t n = std::strlen(word);
    if (static_cast<size_t>(end_ - p_) < n || std::memcmp(p_, word, n) != 0)
      return false;
    p_ += n;
    return true;
  }
  bool SkipNumber() {
    const char* start = p_;
    Eat('-');
    if (Eat('0')) {
    } else if (Peek() >= '1' && Peek() <= '9') {
      while (Peek() >= '0' && Peek() <= '9') ++p_;
    } else {
      return false;
    }
    if (Eat('.')) {
      if (!(Peek() >= '0' && Peek() <= '9')) return false;
      while (Peek() >= '0' && Peek() <= '9') ++p_;
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++p_;
      if (!Eat('+')) Eat('-');
      if (!(Peek() >= '0' && Peek() <= '9')) return false;
      while (Peek() >= '0' && Peek() <= '9') ++p_;
    }
    return p_ != start;
  }
  bool SkipValue(int depth) {
    if (depth > kMaxJsonDepth) return false;
    switch (Peek()) {
      case '"':
        return ParseString(nullptr);
      case 't':
        return SkipLiteral("true");
      case 'f':
        return SkipLiteral("false");
      case 'n':
        return SkipLiteral("null");
      case '[':
      case '{': {
        const bool object = Eat('{');
        if (!object) ++p_;
        const char close = object ? '}' : ']';
        SkipWs();
        if (Eat(close)) return true;
        for (;;) {
          SkipWs();
          if (object) {
            if (!ParseString(nullptr)) return false;
            SkipWs();
            if (!Eat(':')) return false;
            SkipWs();
          }
          if (!SkipValue(depth + 1)) return false;
          SkipWs();
          if (Eat(close)) return true;
          if (!Eat(',')) return false;
        }
      }
      default:
        return SkipNumber();
    }
  }

  const char* p_;
  const char* end_;
};

}  // namespace

int FindPackageNote(const void* image, size_t size, ACE_CString& json) {
  return FindInSource(MemorySource(image, size), json);
}

int ReadPackageNote(const char* path, ACE_CString& json) {
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  struct stat st;
  int result = -1;
  if (::fstat(fd, &st) == 0) {
    if (!S_ISREG(st.st_mode)) {
      errno = S_ISDIR(st.st_mode) ? EISDIR : ENOEXEC;
    } else {
      result =
          FindInSource(FileSource(fd, static_cast<uint64_t>(st.st_size)), json);
    }
  }
  int saved = errno;
  ::close(fd);
  errno = saved;
  return result;
}

int PackageNoteField(const char* json, size_t len, const char* key,
                     ACE_CString& value) {
  std::string out;
  int r = JsonReader(json, len).FindMember(key, out);
  if (r < 0) {
    errno = EBADMSG;
    return -1;
  }
  if (r == 0) {
    errno = ENODATA;
    return -1;
  }
  value.set(out.data(), out.size(), true);
  return 0;
}

int PackageNoteVersion(const char* path, ACE_CString& version) {
  ACE_CString json;
  if (ReadPackageNote(path, json) != 0) return -1;
  return PackageNoteField(json.c_str(), json.length(), "version", version);
}

}  // namespace Kelvane
