#include "common/base/dicomrange.h"

#include <cstring>

#include "common/base/dtvalue.h"
#include "common/base/internal/dtparse.h"
#include "common/base/internal/localzone.h"

namespace Kelvane {

namespace {

enum class Kind { DA, TM, DT };

struct Text {
  const char* begin;
  const char* end;
  bool empty() const { return begin == end; }
};

Text Trim(const char* b, const char* e) {
  while (b != e && *b == ' ') ++b;
  while (e != b && e[-1] == ' ') --e;
  return {b, e};
}

// One side of a range or a stored value in the kind's text form.
bool ParseSide(Kind kind, Text t, DTValue& v) {
  switch (kind) {
    case Kind::DA:
      return dtparse::ParseDT(t.begin, t.end, v) && !v.hasOffset &&
             v.precision <= DTValue::Day;
    case Kind::TM: {
      // A time is read as the time of a fixed day, so that the DT reader
      // checks its fields; offsets are not part of TM.
      char buf[24] = "19700101";
      size_t const n = static_cast<size_t>(t.end - t.begin);
      if (n == 0 || n > sizeof buf - 9) return false;
      if (t.begin[0] < '0' || t.begin[0] > '9') return false;
      std::memcpy(buf + 8, t.begin, n);
      return dtparse::ParseDT(buf, buf + 8 + n, v) && !v.hasOffset &&
             v.precision >= DTValue::Hour;
    }
    case Kind::DT:
      return dtparse::ParseDT(t.begin, t.end, v);
  }
  return false;
}

// The local wall instant `wall` (microseconds) as UTC by the zone rules of
// its date.
bool LocalToUtc(int64_t wall, int64_t& utc) {
  int64_t sec = wall / dtparse::kMicrosPerSecond;
  int64_t sub = wall % dtparse::kMicrosPerSecond;
  if (sub < 0) {
    sub += dtparse::kMicrosPerSecond;
    --sec;
  }
  int64_t utc_sec = 0;
  if (!localzone::ResolveLocal(sec, localzone::OffsetAt, utc_sec)) {
    return false;
  }
  utc = utc_sec * dtparse::kMicrosPerSecond + sub;
  return true;
}

// Brings the instants `a` (of value va) and `b` (of vb) onto one scale;
// false when a local conversion fails.
bool Align(const DTValue& va, int64_t& a, const DTValue& vb, int64_t& b) {
  if (va.hasOffset) a -= va.offsetMinutes * 60 * dtparse::kMicrosPerSecond;
  if (vb.hasOffset) b -= vb.offsetMinutes * 60 * dtparse::kMicrosPerSecond;
  if (va.hasOffset == vb.hasOffset) return true;
  return va.hasOffset ? LocalToUtc(b, b) : LocalToUtc(a, a);
}

struct Range {
  bool hasLow = false;
  bool hasHigh = false;
  DTValue low;
  DTValue high;
};

// Reads "A-B", "-B", "A-" with either side checked by ParseSide.
bool SplitAt(Kind kind, Text t, const char* dash, Range& r) {
  Text const left = Trim(t.begin, dash);
  Text const right = Trim(dash + 1, t.end);
  if (left.empty() && right.empty()) return false;
  Range out;
  if (!left.empty()) {
    if (!ParseSide(kind, left, out.low)) return false;
    out.hasLow = true;
  }
  if (!right.empty()) {
    if (!ParseSide(kind, right, out.high)) return false;
    out.hasHigh = true;
  }
  r = out;
  return true;
}

bool ParseRange(Kind kind, Text t, Range& r) {
  if (kind != Kind::DT) {
    const char* dash = nullptr;
    for (const char* p = t.begin; p != t.end; ++p) {
      if (*p != '-') continue;
      if (dash != nullptr) return false;
      dash = p;
    }
    if (dash != nullptr) return SplitAt(kind, t, dash, r);
  } else {
    // A single value with a negative offset reads as that value; otherwise
    // the last "-" that leaves two readable sides separates them, so an
    // offset stays with the left side.
    DTValue single;
    if (!ParseSide(kind, t, single)) {
      for (const char* p = t.end; p != t.begin;) {
        --p;
        if (*p == '-' && SplitAt(kind, t, p, r)) return true;
      }
      return false;
    }
    r.hasLow = r.hasHigh = true;
    r.low = r.high = single;
    return true;
  }
  if (!ParseSide(kind, t, r.low)) return false;
  r.high = r.low;
  r.hasLow = r.hasHigh = true;
  return true;
}

bool Match(Kind kind, const char* range, const char* value) {
  if (range == nullptr || value == nullptr) return false;
  Text const rt = Trim(range, range + std::strlen(range));
  if (rt.empty()) return true;
  Range r;
  DTValue v;
  if (!ParseRange(kind, rt, r) ||
      !ParseSide(kind, Trim(value, value + std::strlen(value)), v)) {
    return false;
  }
  int64_t const at = dtparse::WallMicros(v);
  if (r.hasLow) {
    int64_t low = dtparse::WallMicros(r.low);
    int64_t x = at;
    if (!Align(r.low, low, v, x) || x < low) return false;
  }
  if (r.hasHigh) {
    int64_t high = dtparse::WallMicrosEnd(r.high);
    int64_t x = at;
    if (!Align(r.high, high, v, x) || x > high) return false;
  }
  return true;
}

}  // namespace

bool MatchDARange(const char* range, const char* value) {
  return Match(Kind::DA, range, value);
}

bool MatchTMRange(const char* range, const char* value) {
  return Match(Kind::TM, range, value);
}

bool MatchDTRange(const char* range, const char* value) {
  return Match(Kind::DT, range, value);
}

}  // namespace Kelvane
