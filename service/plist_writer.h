// LMPlistWriter: a binary property list ("bplist00") written object by
// object, for the keyed-archive encoder.
//
// Each object is written out as soon as it is added; the writer keeps its
// bytes, a table for each kind of value it stores once (texts, integers,
// reals, booleans, references to archive entries) and nothing per object
// beyond that, so that its memory is the list's own size plus a small
// share. References between objects are kept at four bytes while writing
// and narrowed to the width the finished list needs when finish() copies
// the bytes into one block; each part is handed back to the system once
// copied, so the finished list costs its size once and never twice.
//
// Object numbers are given in the order objects are added; a container may
// refer only to objects added before it. Not thread-safe; one writer per
// list.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Replaces U+0000 and unpaired surrogates in `text` by U+FFFD, one unit for
// one: the texts a property list of this system carries.
void lmMakeCarriable(std::u16string& text);

class LMPlistWriter {
 public:
  LMPlistWriter();
  ~LMPlistWriter();
  LMPlistWriter(const LMPlistWriter&) = delete;
  LMPlistWriter& operator=(const LMPlistWriter&) = delete;

  // A text, stored once however often it is added. U+0000 and unpaired
  // surrogates are written as U+FFFD, one unit for one, so that ranges into
  // the text stay valid; pure ASCII is written as bytes.
  uint32_t text(std::u16string_view text);
  // Numbers and booleans, each value stored once.
  uint32_t integer(int64_t n);
  uint32_t real(double d);
  uint32_t boolean(bool b);
  // A reference to entry `n` of the archive's objects, stored once per `n`.
  uint32_t uid(uint64_t n);
  // Bytes, copied into the list.
  uint32_t data(const uint8_t* bytes, size_t count);
  // An array of `count` objects: items[0], items[stride], ...
  uint32_t array(const uint32_t* items, size_t count, size_t stride = 1);
  // A dictionary of `count` pairs, key and value next to each other in `pairs`.
  uint32_t dictionary(const uint32_t* pairs, size_t count);

  // Bytes written so far.
  uint64_t size() const { return bytes_; }

  // The whole list with `top` as its top object. The writer is empty
  // afterwards.
  std::vector<uint8_t> finish(uint32_t top);

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  struct Chunk {
    uint8_t* bytes;
    size_t used;
    size_t capacity;
    uint64_t refs;  // references written into it
  };
  // An open-addressing table from a 64-bit key to an id, no allocation per
  // entry; the caller tells whether an id with the same key matches.
  class Table {
   public:
    template <typename Matches>
    uint32_t find(uint64_t key, Matches matches) const {
      if (slots_.empty()) return kNone;
      for (size_t i = key & mask();; i = (i + 1) & mask()) {
        const Slot& s = slots_[i];
        if (s.id == kNone) return kNone;
        if (s.key == key && matches(s.id)) return s.id;
      }
    }
    void insert(uint64_t key, uint32_t id);

   private:
    struct Slot {
      uint64_t key;
      uint32_t id;
    };
    size_t mask() const { return slots_.size() - 1; }
    void place(uint64_t key, uint32_t id);
    std::vector<Slot> slots_;
    size_t size_ = 0;
  };
  struct TextNode {
    const uint8_t* payload;  // the text's bytes in its chunk
    uint32_t node;
    uint32_t count;  // units; the top bit is set for ASCII
  };

  // Room for the next `bytes` bytes, in one part.
  uint8_t* room(size_t bytes) {
    if (!current_ || current_->capacity - current_->used < bytes) addChunk(bytes);
    uint8_t* p = current_->bytes + current_->used;
    current_->used += bytes;
    bytes_ += bytes;
    return p;
  }
  void addChunk(size_t bytes);
  uint32_t added() { return nodeCount_++; }
  void putMarker(uint8_t*& p, uint8_t type, uint64_t count);
  uint32_t unique(Table& table, uint8_t marker, uint64_t bits, int size);
  void releaseChunks();
  static size_t objectLength(const uint8_t* p, int refSize, size_t* header, uint64_t* refs);
  // Copies the objects of `chunk` to `w` with references `refSize` wide;
  // with `offsets`, writes each object's offset from `base` there. Answers
  // the end of the copy.
  static uint8_t* copyChunk(const Chunk& chunk, uint8_t* w, int refSize, uint8_t* base,
                            uint8_t** offsets, int offsetSize);
  bool textMatches(const TextNode& stored, std::u16string_view text, bool ascii) const;

  std::vector<Chunk> chunks_;
  Chunk* current_ = nullptr;  // the last of chunks_
  uint64_t bytes_ = 0;  // written so far, references at four bytes
  uint64_t refs_ = 0;   // references written so far
  uint32_t nodeCount_ = 0;
  std::vector<TextNode> texts_;
  Table textTable_, integerTable_, realTable_;
  uint32_t bools_[2] = {kNone, kNone};
  std::vector<uint32_t> uids_;
};
