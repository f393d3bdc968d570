#include "service/plist_writer.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// The first part holds a typical reply whole; later parts grow up to
// kLargestChunk (or an object's size). Parts from kMappedChunk on are
// mapped pages of their own, so that each goes back to the system the
// moment finish() has copied it (the allocator would keep them).
constexpr size_t kFirstChunk = 16u << 10;
constexpr size_t kMappedChunk = 1u << 20;
constexpr size_t kLargestChunk = 4u << 20;

int width(uint64_t v) { return v <= 0xFF ? 1 : v <= 0xFFFF ? 2 : v <= 0xFFFFFFFF ? 4 : 8; }

void putBigEndian(uint8_t*& p, uint64_t v, int size) {
  for (int i = size - 1; i >= 0; --i) *p++ = static_cast<uint8_t>(v >> (8 * i));
}

// A reference while writing: four bytes, big-endian.
void putReference(uint8_t*& p, uint32_t ref) {
  const uint32_t bytes = __builtin_bswap32(ref);
  std::memcpy(p, &bytes, 4);
  p += 4;
}

uint64_t bigEndian(const uint8_t* p, int size) {
  uint64_t v = 0;
  for (int i = 0; i < size; ++i) v = v << 8 | p[i];
  return v;
}

uint64_t mixBits(uint64_t x) {  // a bijection: equal results mean equal inputs
  x ^= x >> 33;
  x *= 0xFF51AFD7ED558CCDULL;
  x ^= x >> 33;
  return x;
}

size_t markerSize(uint64_t count) { return count < 15 ? 1 : 2 + width(count); }

uint8_t* allocate(size_t capacity) {
  void* p = capacity >= kMappedChunk
                ? mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                : std::malloc(capacity);
  if (p == MAP_FAILED || !p) throw std::bad_alloc();
  return static_cast<uint8_t*>(p);
}

void release(uint8_t* bytes, size_t capacity) {
  if (capacity >= kMappedChunk)
    munmap(bytes, capacity);
  else
    std::free(bytes);
}

}  // namespace

void lmMakeCarriable(std::u16string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF)
      ++i;
    else if (c == 0 || (c >= 0xD800 && c <= 0xDFFF))
      text[i] = u'\uFFFD';
  }
}

void LMPlistWriter::Table::insert(uint64_t key, uint32_t id) {
  if (2 * (size_ + 1) > slots_.size()) {
    std::vector<Slot> old(std::max<size_t>(256, 2 * slots_.size()), Slot{0, kNone});
    old.swap(slots_);
    for (const Slot& s : old)
      if (s.id != kNone) place(s.key, s.id);
  }
  place(key, id);
  ++size_;
}

void LMPlistWriter::Table::place(uint64_t key, uint32_t id) {
  size_t i = key & mask();
  while (slots_[i].id != kNone) i = (i + 1) & mask();
  slots_[i] = {key, id};
}

LMPlistWriter::LMPlistWriter() { uids_.assign(1024, kNone); }

LMPlistWriter::~LMPlistWriter() { releaseChunks(); }

void LMPlistWriter::releaseChunks() {
  for (Chunk& c : chunks_)
    if (c.bytes) release(c.bytes, c.capacity);
  chunks_.clear();
  current_ = nullptr;
}

void LMPlistWriter::addChunk(size_t bytes) {
  const size_t capacity =
      chunks_.empty() ? std::max(kFirstChunk, bytes)
                      : std::max(bytes, std::min(2 * chunks_.back().capacity, kLargestChunk));
  chunks_.push_back({allocate(capacity), 0, capacity, 0});
  current_ = &chunks_.back();
}

void LMPlistWriter::putMarker(uint8_t*& p, uint8_t type, uint64_t count) {
  if (count < 15) {
    *p++ = static_cast<uint8_t>(type | count);
    return;
  }
  *p++ = type | 0x0F;
  *p++ = static_cast<uint8_t>(0x10 | std::countr_zero(unsigned(width(count))));
  putBigEndian(p, count, width(count));
}

bool LMPlistWriter::textMatches(const TextNode& stored, std::u16string_view text,
                                bool ascii) const {
  if ((stored.count & 0x7FFFFFFF) != text.size() || bool(stored.count >> 31) != ascii)
    return false;
  const uint8_t* p = stored.payload;
  if (ascii) {
    for (size_t i = 0; i < text.size(); ++i)
      if (p[i] != text[i]) return false;
    return true;
  }
  for (size_t i = 0; i < text.size(); ++i)
    if ((char16_t(p[2 * i] << 8) | p[2 * i + 1]) != text[i]) return false;
  return true;
}

uint32_t LMPlistWriter::text(std::u16string_view raw) {
  // Hashed four units at a time; texts that are all ASCII without U+0000
  // (nearly all of them) need no other look.
  const size_t n = raw.size();
  uint64_t hash = 0x9E3779B97F4A7C15ULL ^ n;
  uint64_t high = 0;  // units above 0x7F
  uint64_t zero = 0;  // units that are U+0000
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    uint64_t word;
    std::memcpy(&word, raw.data() + i, sizeof word);
    high |= word & 0xFF80FF80FF80FF80ULL;
    zero |= (word - 0x0001000100010001ULL) & ~word & 0x8000800080008000ULL;
    hash = (hash ^ word) * 0xFF51AFD7ED558CCDULL;
    hash ^= hash >> 32;
  }
  for (; i < n; ++i) {
    high |= raw[i] & 0xFF80;
    zero |= raw[i] == 0;
    hash = (hash ^ raw[i]) * 0xFF51AFD7ED558CCDULL;
  }
  hash = mixBits(hash);
  const bool ascii = !high && !zero;
  if (!ascii) {
    for (size_t u = 0; u < n; ++u) {
      const char16_t c = raw[u];
      if (c >= 0xD800 && c <= 0xDBFF && u + 1 < n && raw[u + 1] >= 0xDC00 && raw[u + 1] <= 0xDFFF) {
        ++u;
      } else if (c == 0 || (c >= 0xD800 && c <= 0xDFFF)) {
        std::u16string carriable(raw);
        lmMakeCarriable(carriable);
        return text(carriable);
      }
    }
  }
  const uint32_t found =
      textTable_.find(hash, [&](uint32_t id) { return textMatches(texts_[id], raw, ascii); });
  if (found != kNone) return texts_[found].node;
  uint8_t* p = room(markerSize(n) + (ascii ? n : 2 * n));
  putMarker(p, ascii ? 0x50 : 0x60, n);
  const uint8_t* payload = p;
  if (ascii) {
    for (char16_t c : raw) *p++ = static_cast<uint8_t>(c);
  } else {
    for (char16_t c : raw) {
      p[0] = static_cast<uint8_t>(c >> 8);
      p[1] = static_cast<uint8_t>(c);
      p += 2;
    }
  }
  const uint32_t node = added();
  texts_.push_back({payload, node, static_cast<uint32_t>(n) | (ascii ? 0x80000000u : 0)});
  textTable_.insert(hash, static_cast<uint32_t>(texts_.size() - 1));
  return node;
}

uint32_t LMPlistWriter::unique(Table& table, uint8_t marker, uint64_t bits, int size) {
  const uint64_t key = mixBits(bits);
  // Each table holds one kind, and equal keys are equal values.
  const uint32_t found = table.find(key, [](uint32_t) { return true; });
  if (found != kNone) return found;
  uint8_t* p = room(1 + size);
  *p++ = marker;
  putBigEndian(p, bits, size);
  const uint32_t node = added();
  table.insert(key, node);
  return node;
}

uint32_t LMPlistWriter::integer(int64_t n) {
  // 1, 2 and 4 bytes are unsigned; 8 bytes are two's complement.
  const uint64_t bits = static_cast<uint64_t>(n);
  const int size = bits > 0xFFFFFFFF ? 8 : width(bits);
  return unique(integerTable_, static_cast<uint8_t>(0x10 | std::countr_zero(unsigned(size))), bits,
                size);
}

uint32_t LMPlistWriter::real(double d) {
  return unique(realTable_, 0x23, std::bit_cast<uint64_t>(d), 8);
}

uint32_t LMPlistWriter::boolean(bool b) {
  if (bools_[b] == kNone) {
    *room(1) = b ? 0x09 : 0x08;
    bools_[b] = added();
  }
  return bools_[b];
}

uint32_t LMPlistWriter::uid(uint64_t n) {
  if (n >= uids_.size()) uids_.resize(std::max<size_t>(n + 1, 2 * uids_.size()), kNone);
  if (uids_[n] == kNone) {
    uint8_t* p = room(1 + width(n));
    *p++ = static_cast<uint8_t>(0x80 | (width(n) - 1));
    putBigEndian(p, n, width(n));
    uids_[n] = added();
  }
  return uids_[n];
}

uint32_t LMPlistWriter::data(const uint8_t* bytes, size_t count) {
  uint8_t* p = room(markerSize(count) + count);
  putMarker(p, 0x40, count);
  if (count) std::memcpy(p, bytes, count);
  return added();
}

uint32_t LMPlistWriter::array(const uint32_t* items, size_t count, size_t stride) {
  uint8_t* p = room(markerSize(count) + 4 * count);
  putMarker(p, 0xA0, count);
  for (size_t i = 0; i < count; ++i) putReference(p, items[i * stride]);
  refs_ += count;
  current_->refs += count;
  return added();
}

uint32_t LMPlistWriter::dictionary(const uint32_t* pairs, size_t count) {
  uint8_t* p = room(markerSize(count) + 8 * count);
  putMarker(p, 0xD0, count);
  for (size_t i = 0; i < count; ++i) putReference(p, pairs[2 * i]);
  for (size_t i = 0; i < count; ++i) putReference(p, pairs[2 * i + 1]);
  refs_ += 2 * count;
  current_->refs += 2 * count;
  return added();
}

// The length of the object at `p` whose references are `refSize` bytes
// wide; `header` is set to its marker's length and `refs` to its references.
inline size_t LMPlistWriter::objectLength(const uint8_t* p, int refSize, size_t* header,
                                          uint64_t* refs) {
  const uint8_t type = p[0] >> 4;
  const uint8_t low = p[0] & 0x0F;
  uint64_t count = low;
  *header = 1;
  *refs = 0;
  if (low == 0x0F && (type == 0x4 || type == 0x5 || type == 0x6 || type == 0xA || type == 0xD)) {
    const int size = 1 << (p[1] & 0x0F);
    count = bigEndian(p + 2, size);
    *header = 2 + size;
  }
  switch (type) {
    case 0x0:
      return 1;
    case 0x1:
    case 0x2:
      return 1 + (size_t{1} << low);
    case 0x8:
      return 2 + low;
    case 0x6:
      return *header + 2 * count;
    case 0xA:
    case 0xD:
      *refs = type == 0xA ? count : 2 * count;
      return *header + refSize * *refs;
    default:  // data and ASCII texts
      return *header + count;
  }
}

uint8_t* LMPlistWriter::copyChunk(const Chunk& chunk, uint8_t* w, int refSize, uint8_t* base,
                                  uint8_t** offsets, int offsetSize) {
  // Runs of objects without references to cut are copied in one go.
  const uint8_t* run = chunk.bytes;
  const uint8_t* const end = chunk.bytes + chunk.used;
  for (const uint8_t* p = run; p < end;) {
    if (offsets) putBigEndian(*offsets, static_cast<uint64_t>(w + (p - run) - base), offsetSize);
    size_t header;
    uint64_t refs;
    const size_t length = objectLength(p, 4, &header, &refs);
    if (!refs || refSize == 4) {
      p += length;
      continue;
    }
    std::memcpy(w, run, static_cast<size_t>(p - run) + header);
    w += (p - run) + header;
    // Each reference cut to the low refSize bytes of its four.
    const uint8_t* r = p + header;
    if (refSize == 2) {
      for (uint64_t i = 0; i < refs; ++i, r += 4, w += 2) w[0] = r[2], w[1] = r[3];
    } else {
      for (uint64_t i = 0; i < refs; ++i, r += 4) *w++ = r[3];
    }
    p += length;
    run = p;
  }
  std::memcpy(w, run, static_cast<size_t>(end - run));
  return w + (end - run);
}

std::vector<uint8_t> LMPlistWriter::finish(uint32_t top) {
  const int refSize = width(nodeCount_);
  const uint64_t table = 8 + bytes_ - (4 - refSize) * refs_;
  const int offsetSize = width(table);
  const uint64_t total = table + uint64_t{nodeCount_} * offsetSize + 32;
  std::vector<uint8_t> out;
  uint8_t* offsets;
  if (chunks_.size() <= 1) {
    // Small: objects and their offsets in one pass.
    out.resize(total);
    offsets = out.data() + table;
    if (!chunks_.empty()) copyChunk(chunks_[0], out.data() + 8, refSize, out.data(), &offsets, offsetSize);
  } else {
    // Filled part by part as the parts are released, so that the list is
    // never held twice; the offsets are read from the copy.
    out.reserve(total);
    out.resize(8);
    for (Chunk& chunk : chunks_) {
      const size_t at = out.size();
      out.resize(at + chunk.used - (4 - refSize) * chunk.refs);
      copyChunk(chunk, out.data() + at, refSize, out.data(), nullptr, 0);
      release(chunk.bytes, chunk.capacity);
      chunk.bytes = nullptr;
    }
    out.resize(total);
    offsets = out.data() + table;
    for (const uint8_t* p = out.data() + 8; p < out.data() + table;) {
      putBigEndian(offsets, static_cast<uint64_t>(p - out.data()), offsetSize);
      size_t header;
      uint64_t refs;
      p += objectLength(p, refSize, &header, &refs);
    }
  }
  releaseChunks();
  std::memcpy(out.data(), "bplist00", 8);
  uint8_t* w = offsets;  // past the offset table
  std::memset(w, 0, 6);
  w += 6;
  *w++ = static_cast<uint8_t>(offsetSize);
  *w++ = static_cast<uint8_t>(refSize);
  putBigEndian(w, nodeCount_, 8);
  putBigEndian(w, top, 8);
  putBigEndian(w, table, 8);
  return out;
}
