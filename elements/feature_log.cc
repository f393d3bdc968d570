#include "elements/feature_log.h"

#include <array>
#include <bit>

namespace {

// The keys the recognizers and the stages write; any other key works too.
// A number's log starts with the writes of its recognizer; a number that the
// gross and tax stages consider then takes up to this many more. Growing by
// that much at once, rather than doubling, leaves neither unused room in the
// log nor the freed smaller buffers behind (many megabytes on a big document).
constexpr size_t kStageWrites = 9;

constexpr std::array<std::u16string_view, 12> kKnownKeys = {
    u"amount", u"currency", u"places", u"stringOriginal", u"term", u"font_size", u"font_bold",
    u"position_rightness", u"text_decimalplaces_eq_two", u"text_gross_term_nearby",
    u"text_tax_term_nearby", u"sort_Weight_tax"};

}  // namespace

void LMFeatureLog::set(std::u16string_view key, LMValue value) {
  Entry entry{kKeyAside, Kind::kAside, 0, 0};
  for (size_t i = 0; i < kKnownKeys.size(); ++i) {
    if (kKnownKeys[i] == key) entry.key = static_cast<uint8_t>(i);
  }
  if (entry.key == kKeyAside) {
    entry.keyAside = static_cast<uint32_t>(aside_.size());
    aside_.emplace_back(key);
  }
  if (const double* d = value.asDouble()) {
    entry.kind = Kind::kDouble;
    entry.bits = std::bit_cast<uint64_t>(*d);
  } else if (const int64_t* i = value.asInt()) {
    entry.kind = Kind::kInteger;
    entry.bits = static_cast<uint64_t>(*i);
  } else if (value.isNull()) {
    entry.kind = Kind::kNull;
  } else {
    entry.bits = aside_.size();
    aside_.push_back(std::move(value));
  }
  // A key written again straight after itself (a nearer term found) takes
  // the place of that write, unless keep() has fixed it.
  if (entries_.size() > kept_ && entries_.back().kind != Kind::kClear &&
      entries_.back().key == entry.key && entry.key != kKeyAside) {
    Entry& last = entries_.back();
    if (last.kind == Kind::kAside && entry.kind == Kind::kAside) {
      aside_[last.bits] = std::move(aside_.back());
      aside_.pop_back();
      entry.bits = last.bits;
    }
    last = entry;
    return;
  }
  if (entries_.size() == entries_.capacity() && !entries_.empty()) reserve(kStageWrites);
  entries_.push_back(entry);
}

size_t LMFeatureLog::keep() {
  kept_ = static_cast<uint32_t>(entries_.size());
  return kept_;
}

void LMFeatureLog::clear() { entries_.push_back(Entry{0, Kind::kClear, 0, 0}); }

LMDictionary LMFeatureLog::dictionary(size_t count) const {
  LMDictionary out;
  for (size_t n = 0; n < count && n < entries_.size(); ++n) {
    const Entry& e = entries_[n];
    if (e.kind == Kind::kClear) {
      out.clear();
      continue;
    }
    const std::u16string_view key = e.key == kKeyAside
                                        ? std::u16string_view(*aside_[e.keyAside].asString())
                                        : kKnownKeys[e.key];
    switch (e.kind) {
      case Kind::kDouble:
        out.set(key, std::bit_cast<double>(e.bits));
        break;
      case Kind::kInteger:
        out.set(key, static_cast<int64_t>(e.bits));
        break;
      case Kind::kNull:
        out.set(key, LMValue::null());
        break;
      default:
        out.set(key, aside_[e.bits]);
        break;
    }
  }
  return out;
}
