#include "common/base/tagmapper.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include <ace/Guard_T.h>

#include "common/base/internal/singletonlock.h"
#include "common/base/internal/tagkeywords.h"
#include "common/base/internal/tagmessage.h"

namespace {

// The published singleton. Atomic so that the unlocked first test of the
// double-checked creation is a proper acquire read.
std::atomic<TagMapper*> g_instance{nullptr};

// VR names in eDCMType order.
const char kVRNames[][3] = {"UN", "AE", "AS", "CS", "DA", "DS", "DT",
                            "IS", "LO", "LT", "PN", "SH", "ST", "TM",
                            "UT", "UI", "SS", "US", "AT", "SL", "UL",
                            "FL", "FD", "OB", "OW", "SQ"};
const unsigned kTypeCount = sizeof(kVRNames) / sizeof(kVRNames[0]);

// Fibonacci hashing of the 32-bit tag into a table of 2^bits slots.
inline uint32_t Slot(uint32_t tag, unsigned shift) {
  return static_cast<uint32_t>(tag * 2654435769u) >> shift;
}

}  // namespace

// An immutable open-addressing table (linear probing, load at most 1/2)
// keyed by the tag. Free slots hold `empty`, a key chosen absent from the
// dictionary. Superseded indexes stay alive (chained through `previous`)
// until the mapper dies, so a reader never sees one freed.
struct TagMapper::Index {
  struct Entry {
    uint32_t tag;
    eDCMType type;
    const char* description;
  };
  unsigned shift = 32;
  uint32_t mask = 0;
  uint32_t empty = 0xFFFFFFFFu;
  std::unique_ptr<Entry[]> slots;
  const Index* previous = nullptr;

  const Entry* Find(uint32_t tag) const {
    if (tag == empty) return nullptr;
    for (uint32_t i = Slot(tag, shift);; i = (i + 1) & mask) {
      const Entry& e = slots[i];
      if (e.tag == tag) return &e;
      if (e.tag == empty) return nullptr;
    }
  }
};

namespace Kelvane {
namespace tagmessage {

TagMapper::eDCMType TypeOfVR(const char* vr) {
  for (unsigned i = 0; i < kTypeCount; ++i) {
    if (vr[0] == kVRNames[i][0] && vr[0] != '\0' && vr[1] == kVRNames[i][1]) {
      return static_cast<TagMapper::eDCMType>(i);
    }
  }
  return TagMapper::UN;
}

bool ParseMessageLine(const char* line, MessageLine* out) {
  size_t len = std::strlen(line);
  while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) --len;
  if (len < 8 || line[4] != ',') return false;

  auto field = [&](size_t from, size_t count) {
    if (from >= len) return std::string();
    return std::string(line + from, std::min(count, len - from));
  };
  unsigned long group = std::strtoul(field(0, 4).c_str(), nullptr, 16);
  unsigned long element = std::strtoul(field(5, 4).c_str(), nullptr, 16);
  out->tag = static_cast<unsigned int>((group << 16 | element) & 0xFFFFFFFFu);

  out->description = field(13, 44);
  size_t end = out->description.find_last_not_of(" \t");
  out->description.erase(end == std::string::npos ? 0 : end + 1);

  std::string vr = field(57, 2);
  out->type = vr.size() == 2 ? TypeOfVR(vr.c_str()) : TagMapper::UN;
  return true;
}

std::string FormatTableLine(unsigned int tag, const char* description,
                            TagMapper::eDCMType type) {
  std::string line = "  \"";
  char number[16];
  std::snprintf(number, sizeof number, "%X", tag);
  line += number;
  line += "\", \"";
  line += description;
  line += "\", \"";
  std::snprintf(number, sizeof number, "%d", static_cast<int>(type));
  line += number;
  line += "\",\n";
  return line;
}

}  // namespace tagmessage
}  // namespace Kelvane

TagMapper* TagMapper::Instance() {
  return Kelvane::internal::CreateOnce(g_instance,
                                       [] { return new TagMapper; });
}

TagMapper::TagMapper() : index_(nullptr) {
  m_tags.open();
  LoadTagsFromText();
}

TagMapper::~TagMapper() {
  const Index* index = index_.load(std::memory_order_acquire);
  while (index != nullptr) {
    const Index* previous = index->previous;
    delete index;
    index = previous;
  }
}

void TagMapper::LoadTagsFromText() {
  ACE_GUARD(ACE_Thread_Mutex, guard, writer_);
  for (const char* const* entry = m_GETable; entry[0] != nullptr; entry += 3) {
    unsigned int tag =
        static_cast<unsigned int>(std::strtoul(entry[0], nullptr, 16));
    eDCMType type = static_cast<eDCMType>(std::atoi(entry[2]));
    m_tags.bind(tag, std::make_pair(entry[1], type));
  }
  Publish();
}

// Called with writer_ held.
void TagMapper::Publish() {
  std::unique_ptr<Index> index(new Index);
  size_t count = m_tags.current_size();
  unsigned bits = 4;
  while ((size_t{1} << bits) < 2 * count) ++bits;
  index->shift = 32 - bits;
  index->mask = (1u << bits) - 1;

  // A free-slot key that no entry uses: the largest absent value.
  std::pair<const char*, eDCMType> unused;
  while (m_tags.find(index->empty, unused) == 0) --index->empty;
  index->slots.reset(new Index::Entry[size_t{1} << bits]);
  for (uint32_t i = 0; i <= index->mask; ++i) {
    index->slots[i] = Index::Entry{index->empty, UN, nullptr};
  }
  for (TagMap::ITERATOR it = m_tags.begin(); it != m_tags.end(); ++it) {
    uint32_t tag = (*it).ext_id_;
    uint32_t i = Slot(tag, index->shift);
    while (index->slots[i].tag != index->empty) i = (i + 1) & index->mask;
    index->slots[i] =
        Index::Entry{tag, (*it).int_id_.second, (*it).int_id_.first};
  }
  index->previous = index_.load(std::memory_order_relaxed);
  index_.store(index.release(), std::memory_order_release);
}

const char* TagMapper::FindDescription(unsigned int tag) const {
  const Index::Entry* e =
      index_.load(std::memory_order_acquire)->Find(static_cast<uint32_t>(tag));
  return e != nullptr ? e->description : nullptr;
}

const char* TagMapper::FindDescription(const char* text) const {
  if (text == nullptr) return nullptr;
  unsigned int group = 0, element = 0;
  if (std::sscanf(text, "%04X,%04X", &group, &element) != 2) return nullptr;
  return FindDescription(group << 16 | element);
}

TagMapper::eDCMType TagMapper::FindVR(unsigned int tag) const {
  const Index::Entry* e =
      index_.load(std::memory_order_acquire)->Find(static_cast<uint32_t>(tag));
  return e != nullptr ? e->type : UN;
}

unsigned short TagMapper::DCMType2VR(eDCMType type) {
  if (type == AE) return static_cast<unsigned short>('A' | 'S' << 8);
  if (type == AS || type >= kTypeCount) return 0;
  return static_cast<unsigned short>(
      static_cast<unsigned char>(kVRNames[type][0]) |
      static_cast<unsigned char>(kVRNames[type][1]) << 8);
}

const TagMapper::TagMap& TagMapper::GetTags() const { return m_tags; }

void TagMapper::WriteTagsToFile() {
  namespace tm = Kelvane::tagmessage;
  FILE* in = std::fopen(tm::kMessageFile, "r");
  if (in == nullptr) return;

  ACE_GUARD(ACE_Thread_Mutex, guard, writer_);
  std::unique_ptr<char[]> buffer(new char[tm::kMaxLine]);
  tm::MessageLine line;
  while (std::fgets(buffer.get(), static_cast<int>(tm::kMaxLine), in)) {
    if (!tm::ParseMessageLine(buffer.get(), &line)) continue;
    owned_.push_back(line.description);
    if (m_tags.bind(line.tag,
                    std::make_pair(owned_.back().c_str(), line.type)) != 0) {
      owned_.pop_back();  // the tag is known already: its entry stays
    }
  }
  std::fclose(in);
  Publish();

  FILE* out = std::fopen(tm::kTableFile, "w");
  if (out == nullptr) return;
  std::fputs(tm::kTableOpening, out);
  for (TagMap::ITERATOR it = m_tags.begin(); it != m_tags.end(); ++it) {
    std::fputs(tm::FormatTableLine((*it).ext_id_, (*it).int_id_.first,
                                   (*it).int_id_.second)
                   .c_str(),
               out);
  }
  std::fputs(tm::kTableClosing, out);
  std::fclose(out);
}

namespace {

using Kelvane::internal::kTagKeywordCount;
using Kelvane::internal::kTagKeywords;
using Kelvane::internal::TagKeyword;

uint32_t HashKeyword(const char* k) {
  uint32_t h = 2166136261u;  // FNV-1a
  for (; *k != '\0'; ++k) {
    h = (h ^ static_cast<unsigned char>(*k)) * 16777619u;
  }
  return h;
}

// Open-addressing indexes over kTagKeywords (linear probing, load below
// 1/3), built once on first use: by exact tag, and by keyword.
class KeywordIndex {
 public:
  static const KeywordIndex& Get() {
    static const KeywordIndex index;
    return index;
  }

  const TagKeyword* ByTag(uint32_t tag) const {
    for (uint32_t i = Slot(tag, shift_);; i = (i + 1) & mask_) {
      uint16_t const e = by_tag_[i];
      if (e == 0) break;
      if (kTagKeywords[e - 1].tag == tag) return &kTagKeywords[e - 1];
    }
    // Repeating groups, for public (even) groups only.
    if ((tag >> 16) % 2 == 0) {
      for (unsigned r = first_repeater_; r < kTagKeywordCount; ++r) {
        const TagKeyword& e = kTagKeywords[r];
        if ((tag & e.mask) == e.tag) return &e;
      }
    }
    return nullptr;
  }

  const TagKeyword* ByKeyword(const char* keyword) const {
    uint32_t const h = HashKeyword(keyword);
    for (uint32_t i = h & mask_;; i = (i + 1) & mask_) {
      const Named& n = by_keyword_[i];
      if (n.entry == 0) return nullptr;
      if (n.hash == h &&
          std::strcmp(kTagKeywords[n.entry - 1].keyword, keyword) == 0) {
        return &kTagKeywords[n.entry - 1];
      }
    }
  }

 private:
  struct Named {
    uint32_t hash;
    uint16_t entry;  // index + 1; 0 is a free slot
  };

  KeywordIndex() {
    // At least three slots per entry; entry numbers must fit 16 bits.
    while ((1u << (32 - shift_)) < 3 * kTagKeywordCount) --shift_;
    mask_ = (1u << (32 - shift_)) - 1;
    by_tag_.reset(new uint16_t[mask_ + 1]());
    by_keyword_.reset(new Named[mask_ + 1]());
    first_repeater_ = kTagKeywordCount;
    for (unsigned i = 0; i < kTagKeywordCount; ++i) {
      const TagKeyword& e = kTagKeywords[i];
      if (e.mask != 0xFFFFFFFFu) {
        if (first_repeater_ == kTagKeywordCount) first_repeater_ = i;
        continue;
      }
      uint32_t s = Slot(e.tag, shift_);
      while (by_tag_[s] != 0) s = (s + 1) & mask_;
      by_tag_[s] = static_cast<uint16_t>(i + 1);
    }
    // Keywords: exact entries first, a later one of the same keyword
    // replacing an earlier one; repeating groups only where the keyword is
    // not taken.
    for (unsigned i = 0; i < kTagKeywordCount; ++i) {
      const TagKeyword& e = kTagKeywords[i];
      if (e.keyword[0] == '\0') continue;
      bool const repeater = e.mask != 0xFFFFFFFFu;
      uint32_t const h = HashKeyword(e.keyword);
      uint32_t s = h & mask_;
      for (;; s = (s + 1) & mask_) {
        Named& n = by_keyword_[s];
        if (n.entry == 0) {
          n.hash = h;
          n.entry = static_cast<uint16_t>(i + 1);
          break;
        }
        if (n.hash == h &&
            std::strcmp(kTagKeywords[n.entry - 1].keyword, e.keyword) == 0) {
          if (!repeater) n.entry = static_cast<uint16_t>(i + 1);
          break;
        }
      }
    }
  }

  std::unique_ptr<uint16_t[]> by_tag_;
  std::unique_ptr<Named[]> by_keyword_;
  unsigned first_repeater_ = 0;
  unsigned shift_ = 32 - 8;
  uint32_t mask_ = 0;
};

}  // namespace

const char* TagMapper::FindKeyword(unsigned int tag) const {
  const TagKeyword* e = KeywordIndex::Get().ByTag(tag);
  return e == nullptr || e->keyword[0] == '\0' ? nullptr : e->keyword;
}

bool TagMapper::FindTagByKeyword(const char* keyword,
                                 unsigned long& tag) const {
  if (keyword == nullptr || keyword[0] == '\0') return false;
  const TagKeyword* e = KeywordIndex::Get().ByKeyword(keyword);
  if (e == nullptr) return false;
  tag = e->tag;
  return true;
}

const char* TagMapper::FindVM(unsigned int tag) const {
  const TagKeyword* e = KeywordIndex::Get().ByTag(tag);
  return e == nullptr ? nullptr : e->vm;
}

bool TagMapper::IsRetired(unsigned int tag) const {
  const TagKeyword* e = KeywordIndex::Get().ByTag(tag);
  return e != nullptr && e->retired;
}
