// LMKey: the key of a dictionary entry, an immutable UTF-16 text that is
// cheap to copy.
//
// Keys are few and repeat: every found number carries the same twenty
// diagnostic keys, every line of a page the same two attribute keys. A key of
// up to kInlineUnits units (nearly all of them) is kept inside the key
// object; a longer one lives in one block that all copies of the key share
// (reference-counted, safe to copy and drop from several threads), so that a
// key read once from an archive can stand in any number of dictionaries
// without another allocation.
#pragma once
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

class LMKey {
 public:
  static constexpr size_t kInlineUnits = 11;

  LMKey() noexcept : size_(0) {}
  LMKey(std::u16string_view text) { assign(text); }
  LMKey(const char16_t* text) : LMKey(std::u16string_view(text)) {}
  LMKey(const std::u16string& text) : LMKey(std::u16string_view(text)) {}
  LMKey(const LMKey& other) noexcept { copyFrom(other); }
  LMKey(LMKey&& other) noexcept { moveFrom(other); }
  LMKey& operator=(const LMKey& other) noexcept {
    if (this != &other) {
      release();
      copyFrom(other);
    }
    return *this;
  }
  LMKey& operator=(LMKey&& other) noexcept {
    if (this != &other) {
      release();
      moveFrom(other);
    }
    return *this;
  }
  ~LMKey() { release(); }

  std::u16string_view view() const noexcept {
    if (size_ != kShared) return {units_, size_};
    Block* b = block();
    return {b->units(), b->size};
  }
  size_t size() const noexcept { return size_ != kShared ? size_ : block()->size; }
  bool empty() const noexcept { return size() == 0; }
  std::u16string str() const { return std::u16string(view()); }
  // Whether this key and `other` share one block (then they are equal).
  bool sharesStorageWith(const LMKey& other) const noexcept {
    return size_ == kShared && other.size_ == kShared && block() == other.block();
  }

  friend bool operator==(const LMKey& a, const LMKey& b) noexcept {
    return a.sharesStorageWith(b) || a.view() == b.view();
  }
  friend bool operator==(const LMKey& a, std::u16string_view b) noexcept { return a.view() == b; }
  friend bool operator==(const LMKey& a, const std::u16string& b) noexcept {
    return a.view() == std::u16string_view(b);
  }
  friend bool operator==(const LMKey& a, const char16_t* b) noexcept {
    return a.view() == std::u16string_view(b);
  }

 private:
  static constexpr uint8_t kShared = 0xFF;
  // A shared text: this header, then `size` units.
  struct Block {
    explicit Block(uint32_t n) : references(1), size(n) {}
    std::atomic<uint32_t> references;
    uint32_t size;
    char16_t* units() noexcept { return reinterpret_cast<char16_t*>(this + 1); }
  };

  Block* block() const noexcept {
    Block* b;
    std::memcpy(&b, units_, sizeof b);
    return b;
  }
  void assign(std::u16string_view text) {
    if (text.size() <= kInlineUnits) {
      if (!text.empty()) std::memcpy(units_, text.data(), text.size() * sizeof(char16_t));
      size_ = static_cast<uint8_t>(text.size());
      return;
    }
    Block* b = share(text);
    std::memcpy(units_, &b, sizeof b);
    size_ = kShared;
  }
  // A new block holding `text`, referenced once.
  static Block* share(std::u16string_view text);
  void copyFrom(const LMKey& other) noexcept {
    std::memcpy(units_, other.units_, sizeof units_);
    size_ = other.size_;
    if (size_ == kShared) block()->references.fetch_add(1, std::memory_order_relaxed);
  }
  void moveFrom(LMKey& other) noexcept {
    std::memcpy(units_, other.units_, sizeof units_);
    size_ = other.size_;
    other.size_ = 0;
  }
  void release() noexcept {
    if (size_ != kShared) return;
    Block* b = block();
    if (b->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      b->~Block();
      ::operator delete(b);
    }
    size_ = 0;
  }

  char16_t units_[kInlineUnits];
  uint8_t size_;  // units kept inline, or kShared
};
static_assert(sizeof(LMKey) == 24);
