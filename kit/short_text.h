// LMShortText: an optional text in 16 bytes, for short codes held by many
// objects (a currency code in every found number). Up to three units are kept
// inline; a longer text is kept whole on the heap. Copies are deep.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

class LMShortText {
 public:
  LMShortText() = default;
  explicit LMShortText(const std::optional<std::u16string>& text) { assign(text); }
  // Moves copy too: a moved-from text keeps its value.
  LMShortText(const LMShortText& o) { assign(o.value()); }
  LMShortText& operator=(const LMShortText& o) {
    if (this != &o) assign(o.value());
    return *this;
  }

  void assign(const std::optional<std::u16string>& text) {
    long_.reset();
    size_ = 0;
    state_ = State::kNone;
    if (!text) return;
    if (text->size() > kInlineUnits) {
      long_ = std::make_unique<std::u16string>(*text);
      state_ = State::kHeap;
      return;
    }
    text->copy(units_, text->size());
    size_ = static_cast<uint8_t>(text->size());
    state_ = State::kInline;
  }

  bool hasValue() const { return state_ != State::kNone; }
  // The text, or nullopt when none was given.
  std::optional<std::u16string> value() const {
    if (state_ == State::kNone) return std::nullopt;
    if (state_ == State::kHeap) return *long_;
    return std::u16string(units_, size_);
  }

 private:
  enum class State : uint8_t { kNone, kInline, kHeap };
  static constexpr size_t kInlineUnits = 3;

  std::unique_ptr<std::u16string> long_;
  char16_t units_[kInlineUnits] = {};
  uint8_t size_ = 0;
  State state_ = State::kNone;
};
static_assert(sizeof(LMShortText) == 16);
