// What keeps one MuPDF document within bounds and quiet: its allocator's
// memory budget, the glyph budget of the page being read, and the collector
// of MuPDF's warnings. Used by the PDF adapter only (mupdf_state.h).
//
// Called from inside MuPDF (C frames): nothing here throws.
#pragma once
#include <mupdf/fitz.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "kit/diagnostics.h"

// MuPDF's allocator for one document: counts what MuPDF holds and refuses
// what would go beyond the limit. MuPDF answers a refusal by emptying its
// store and trying again, and failing that by an error, so a document that
// needs more stops being read instead of growing without bound.
class LMMuPdfMemoryBudget {
 public:
  explicit LMMuPdfMemoryBudget(size_t limit) : limit_(limit) {}

  fz_alloc_context allocator() { return fz_alloc_context{this, allocate, reallocate, release}; }
  // Whether anything was refused since the last call.
  bool takeRefused() { return std::exchange(refused_, false); }

 private:
  // Each block starts with its size; 16 bytes keep the block aligned.
  static constexpr size_t kHeader = 16;

  static void* allocate(void* user, size_t size) {
    return static_cast<LMMuPdfMemoryBudget*>(user)->resize(nullptr, size);
  }
  static void* reallocate(void* user, void* old, size_t size) {
    return static_cast<LMMuPdfMemoryBudget*>(user)->resize(old, size);
  }
  static void release(void* user, void* p) {
    if (!p) return;
    char* block = static_cast<char*>(p) - kHeader;
    static_cast<LMMuPdfMemoryBudget*>(user)->used_ -= *reinterpret_cast<size_t*>(block);
    std::free(block);
  }

  void* resize(void* old, size_t size) {
    char* block = old ? static_cast<char*>(old) - kHeader : nullptr;
    const size_t before = block ? *reinterpret_cast<size_t*>(block) : 0;
    if (size > limit_ || used_ - before > limit_ - size) {
      refused_ = true;
      return nullptr;
    }
    char* grown = static_cast<char*>(std::realloc(block, kHeader + size));
    if (!grown) return nullptr;
    *reinterpret_cast<size_t*>(grown) = size;
    used_ = used_ - before + size;
    return grown + kHeader;
  }

  const size_t limit_;
  size_t used_ = 0;
  bool refused_ = false;
};

// While one page's text is extracted: the glyphs it may still draw. The
// text device's text calls are routed through charge() (MuPDF runs the
// page on the calling thread, so the budget of the page in progress is a
// thread-local); past the budget nothing more reaches the device and the
// interpreter is told to stop.
struct LMMuPdfGlyphBudget {
  using FillText = void (*)(fz_context*, fz_device*, const fz_text*, fz_matrix, fz_colorspace*,
                            const float*, float, fz_color_params);
  using StrokeText = void (*)(fz_context*, fz_device*, const fz_text*, const fz_stroke_state*,
                              fz_matrix, fz_colorspace*, const float*, float, fz_color_params);
  using ClipText = void (*)(fz_context*, fz_device*, const fz_text*, fz_matrix, fz_rect);
  using ClipStrokeText = void (*)(fz_context*, fz_device*, const fz_text*,
                                  const fz_stroke_state*, fz_matrix, fz_rect);
  using IgnoreText = void (*)(fz_context*, fz_device*, const fz_text*, fz_matrix);

  int64_t left = 0;
  bool exceeded = false;
  fz_cookie* cookie = nullptr;
  FillText fillText = nullptr;
  StrokeText strokeText = nullptr;
  ClipText clipText = nullptr;
  ClipStrokeText clipStrokeText = nullptr;
  IgnoreText ignoreText = nullptr;

  static inline thread_local LMMuPdfGlyphBudget* current = nullptr;

  // True when `text` fits in what is left.
  static bool charge(const fz_text* text) {
    LMMuPdfGlyphBudget* budget = current;
    if (!budget || budget->exceeded) return false;
    for (const fz_text_span* span = text ? text->head : nullptr; span; span = span->next) {
      budget->left -= span->len;
    }
    if (budget->left >= 0) return true;
    budget->exceeded = true;
    budget->cookie->abort = 1;
    return false;
  }

  // Routes the text calls of `device` (a structured-text device) through
  // the budget.
  void attach(fz_device* device) {
    fillText = device->fill_text;
    strokeText = device->stroke_text;
    clipText = device->clip_text;
    clipStrokeText = device->clip_stroke_text;
    ignoreText = device->ignore_text;
    if (fillText) device->fill_text = [](fz_context* ctx, fz_device* dev, const fz_text* text,
                                         fz_matrix ctm, fz_colorspace* cs, const float* color,
                                         float alpha, fz_color_params params) {
      if (charge(text)) current->fillText(ctx, dev, text, ctm, cs, color, alpha, params);
    };
    if (strokeText) device->stroke_text = [](fz_context* ctx, fz_device* dev, const fz_text* text,
                                             const fz_stroke_state* stroke, fz_matrix ctm,
                                             fz_colorspace* cs, const float* color, float alpha,
                                             fz_color_params params) {
      if (charge(text)) current->strokeText(ctx, dev, text, stroke, ctm, cs, color, alpha, params);
    };
    if (clipText) device->clip_text = [](fz_context* ctx, fz_device* dev, const fz_text* text,
                                         fz_matrix ctm, fz_rect scissor) {
      if (charge(text)) current->clipText(ctx, dev, text, ctm, scissor);
    };
    if (clipStrokeText) device->clip_stroke_text = [](fz_context* ctx, fz_device* dev,
                                                      const fz_text* text,
                                                      const fz_stroke_state* stroke,
                                                      fz_matrix ctm, fz_rect scissor) {
      if (charge(text)) current->clipStrokeText(ctx, dev, text, stroke, ctm, scissor);
    };
    if (ignoreText) device->ignore_text = [](fz_context* ctx, fz_device* dev, const fz_text* text,
                                             fz_matrix ctm) {
      if (charge(text)) current->ignoreText(ctx, dev, text, ctm);
    };
  }
};


// What MuPDF reports while one document is read. Damaged files can produce
// hundreds of lines (one per failed object lookup); they are counted and
// logged as one entry when the document is closed. The objects MuPDF could
// not parse are noted too: it does not remember such a failure and parses
// the object again at each lookup (see LMMuPdfState::forgetBrokenObjects).

class LMMuPdfMessages {
 public:
  static void onWarning(void* user, const char* message) {
    static_cast<LMMuPdfMessages*>(user)->add("warning", message);
  }
  static void onError(void* user, const char* message) {
    static_cast<LMMuPdfMessages*>(user)->add("error", message);
  }

  // The numbers of the objects MuPDF failed to parse since the last call.
  std::vector<int> takeBrokenObjects() { return std::exchange(broken_, {}); }

  // One log entry when anything was reported.
  void logSummary() const {
    if (count_ == 0) return;
    std::string examples;
    for (const std::string& sample : samples_) {
      if (!examples.empty()) examples += "; ";
      examples += sample;
    }
    lmLogf("MuPDF reported %llu problem(s) while reading a PDF: %s%s",
           static_cast<unsigned long long>(count_), examples.c_str(),
           count_ > samples_.size() ? "; ..." : "");
  }

 private:
  static constexpr size_t kMaxSamples = 3;

  // Called from inside MuPDF (a C frame): must not throw.
  void add(const char* kind, const char* message) noexcept {
    // MuPDF reports a run of equal warnings once, then "... repeated N times...".
    int repeats = 0;
    if (message && std::sscanf(message, "... repeated %d times", &repeats) == 1) {
      if (repeats > 1) count_ += static_cast<uint64_t>(repeats - 1);
      return;
    }
    ++count_;
    try {
      int object = 0;
      if (message && std::sscanf(message, "cannot load object (%d 0 R) into cache", &object) == 1) {
        broken_.push_back(object);
      }
      std::string line = std::string(kind) + ": " + (message ? message : "");
      if (samples_.size() < kMaxSamples &&
          std::find(samples_.begin(), samples_.end(), line) == samples_.end()) {
        samples_.push_back(std::move(line));
      }
    } catch (...) {
      // Out of memory while keeping a note: the count is enough.
    }
  }

  uint64_t count_ = 0;
  std::vector<std::string> samples_;
  std::vector<int> broken_;
};
