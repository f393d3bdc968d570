// Embedded files through MuPDF. Like the rest of the adapter, every MuPDF
// call that can throw sits in a small function holding only plain C values;
// the C++ side collects what they answer.
//
// MuPDF's pdf_load_embedded_file_contents reads a file whole, whatever its
// decoded size; here the stream is read in chunks and reading stops at the
// bound, so a small compressed stream that inflates to gigabytes costs no
// more than the bound.
#include "document/mupdf_attachments.h"

#include <algorithm>
#include <string>

#include "kit/unicode.h"

namespace {

// Pages whose annotations are looked at for attached files.
constexpr int kMaxAnnotationPages = 2000;
constexpr size_t kChunk = 64u << 10;
// What is read first, to tell XML from anything else.
constexpr size_t kSniffBytes = 256;

// ---- MuPDF calls, each inside its own fz_try. Plain values only.

// The document catalogue's /AF array, kept; null when none.
pdf_obj* associatedFiles(fz_context* ctx, pdf_document* doc) {
  pdf_obj* af = nullptr;
  fz_var(af);
  fz_try(ctx) {
    pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    af = pdf_dict_gets(ctx, root, "AF");
    af = pdf_is_array(ctx, af) ? pdf_keep_obj(ctx, af) : nullptr;
  }
  fz_catch(ctx) { af = nullptr; }
  return af;
}

// The EmbeddedFiles name tree flattened into a dictionary; null when none.
pdf_obj* embeddedFilesTree(fz_context* ctx, pdf_document* doc) {
  pdf_obj* tree = nullptr;
  fz_var(tree);
  fz_try(ctx) { tree = pdf_load_name_tree(ctx, doc, PDF_NAME(EmbeddedFiles)); }
  fz_catch(ctx) { tree = nullptr; }
  return tree;
}

// A page's /Annots array, kept; null when none or unreadable.
pdf_obj* pageAnnotations(fz_context* ctx, pdf_document* doc, int page) {
  pdf_obj* annots = nullptr;
  fz_var(annots);
  fz_try(ctx) {
    annots = pdf_dict_get(ctx, pdf_lookup_page_obj(ctx, doc, page), PDF_NAME(Annots));
    annots = pdf_is_array(ctx, annots) ? pdf_keep_obj(ctx, annots) : nullptr;
  }
  fz_catch(ctx) { annots = nullptr; }
  return annots;
}

int pageCount(fz_context* ctx, pdf_document* doc) {
  int count = 0;
  fz_var(count);
  fz_try(ctx) { count = pdf_count_pages(ctx, doc); }
  fz_catch(ctx) { count = 0; }
  return count;
}

// Length of an array or dictionary (0 when unreadable).
int length(fz_context* ctx, pdf_obj* obj) {
  int n = 0;
  fz_var(n);
  fz_try(ctx) { n = pdf_is_array(ctx, obj) ? pdf_array_len(ctx, obj) : pdf_dict_len(ctx, obj); }
  fz_catch(ctx) { n = 0; }
  return n;
}

// What one entry of a list names: a file dictionary with an embedded stream,
// or nothing. `key` is the name tree's key (or null).
struct Entry {
  pdf_obj* dict = nullptr;  // resolved, not kept (the list holds it)
  pdf_obj* key = nullptr;
};

Entry arrayEntry(fz_context* ctx, pdf_obj* array, int i) {
  Entry e;
  fz_var(e);
  fz_try(ctx) { e.dict = pdf_resolve_indirect(ctx, pdf_array_get(ctx, array, i)); }
  fz_catch(ctx) { e.dict = nullptr; }
  return e;
}

Entry treeEntry(fz_context* ctx, pdf_obj* tree, int i) {
  Entry e;
  fz_var(e);
  fz_try(ctx) {
    e.key = pdf_dict_get_key(ctx, tree, i);
    e.dict = pdf_resolve_indirect(ctx, pdf_dict_get_val(ctx, tree, i));
  }
  fz_catch(ctx) { e = Entry(); }
  return e;
}

// A file-attachment annotation's file dictionary.
Entry annotationEntry(fz_context* ctx, pdf_obj* annots, int i) {
  Entry e;
  fz_var(e);
  fz_try(ctx) {
    pdf_obj* annot = pdf_array_get(ctx, annots, i);
    if (pdf_name_eq(ctx, pdf_dict_get(ctx, annot, PDF_NAME(Subtype)), PDF_NAME(FileAttachment))) {
      e.dict = pdf_resolve_indirect(ctx, pdf_dict_get(ctx, annot, PDF_NAME(FS)));
    }
  }
  fz_catch(ctx) { e.dict = nullptr; }
  return e;
}

// The plain facts of a file dictionary; pointers into MuPDF's objects,
// valid while the document is open.
struct FileFacts {
  pdf_obj* stream = nullptr;
  const char* name = nullptr;
  const char* mimeType = nullptr;
  const char* relationship = nullptr;
};

FileFacts fileFacts(fz_context* ctx, pdf_obj* dict) {
  FileFacts f;
  fz_var(f);
  fz_try(ctx) {
    pdf_obj* ef = pdf_dict_get(ctx, dict, PDF_NAME(EF));
    f.stream = pdf_dict_get(ctx, ef, PDF_NAME(UF));
    if (!pdf_is_stream(ctx, f.stream)) f.stream = pdf_dict_get(ctx, ef, PDF_NAME(F));
    if (!pdf_is_stream(ctx, f.stream)) f.stream = nullptr;
    pdf_obj* name = pdf_dict_get(ctx, dict, PDF_NAME(UF));
    if (!pdf_is_string(ctx, name)) name = pdf_dict_get(ctx, dict, PDF_NAME(F));
    if (pdf_is_string(ctx, name)) f.name = pdf_to_text_string(ctx, name);
    if (f.stream) {
      pdf_obj* subtype = pdf_dict_get(ctx, f.stream, PDF_NAME(Subtype));
      if (pdf_is_name(ctx, subtype)) f.mimeType = pdf_to_name(ctx, subtype);
    }
    pdf_obj* relationship = pdf_dict_gets(ctx, dict, "AFRelationship");
    if (pdf_is_name(ctx, relationship)) f.relationship = pdf_to_name(ctx, relationship);
  }
  fz_catch(ctx) { f = FileFacts(); }
  return f;
}

const char* keyText(fz_context* ctx, pdf_obj* key) {
  const char* text = nullptr;
  fz_var(text);
  fz_try(ctx) { text = pdf_is_string(ctx, key) ? pdf_to_text_string(ctx, key) : pdf_to_name(ctx, key); }
  fz_catch(ctx) { text = nullptr; }
  return text;
}

fz_stream* openStream(fz_context* ctx, pdf_obj* stream) {
  fz_stream* stm = nullptr;
  fz_var(stm);
  fz_try(ctx) { stm = pdf_open_stream(ctx, stream); }
  fz_catch(ctx) { stm = nullptr; }
  return stm;
}

// Up to `size` bytes; -1 when the stream is damaged. fz_read reports a
// decoding error as the end of the data and only marks the stream.
long readChunk(fz_context* ctx, fz_stream* stm, unsigned char* data, size_t size) {
  long n = 0;
  fz_var(n);
  fz_try(ctx) { n = static_cast<long>(fz_read(ctx, stm, data, size)); }
  fz_catch(ctx) { n = -1; }
  return stm->error ? -1 : n;
}

void dropStream(fz_context* ctx, fz_stream* stm) {
  fz_try(ctx) { fz_drop_stream(ctx, stm); }
  fz_catch(ctx) {}
}

void dropObject(fz_context* ctx, pdf_obj* obj) {
  fz_try(ctx) { pdf_drop_obj(ctx, obj); }
  fz_catch(ctx) {}
}

// ---- The list.

std::u16string text(const char* utf8) { return utf8 ? lmUtf16(utf8) : std::u16string(); }

// False once the start of `bytes` shows it is no XML text: something other
// than white space comes first, after an optional UTF-8 byte order mark.
// A UTF-16 or UTF-32 byte order mark, or white space alone, may still be XML.
bool mayBeXML(const std::vector<uint8_t>& bytes) {
  size_t i = 0;
  if (bytes.size() >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) i = 3;
  if (!bytes.empty() && (bytes[0] == 0xFE || bytes[0] == 0xFF || bytes[0] == 0x00)) return true;
  while (i < bytes.size() && (bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\r' || bytes[i] == '\n')) ++i;
  return i == bytes.size() || bytes[i] == '<';
}

// Reads `stream` into `out`, at most `limit` bytes; the failure, or empty.
// A file whose first bytes are no XML is read only that far (`*complete`
// false): no e-invoice can be in it, and images and documents can be large.
std::u16string readContents(fz_context* ctx, pdf_obj* stream, size_t limit,
                            std::vector<uint8_t>* out, bool* complete) {
  *complete = true;
  fz_stream* stm = openStream(ctx, stream);
  if (!stm) return u"damaged stream";
  std::vector<unsigned char> chunk(kChunk);
  std::u16string failure;
  for (size_t want = kSniffBytes;; want = chunk.size()) {
    if (!out->empty() && !mayBeXML(*out)) {
      *complete = false;
      break;
    }
    const long n = readChunk(ctx, stm, chunk.data(), want);
    if (n < 0) {
      failure = u"damaged stream";
      break;
    }
    if (n == 0) break;
    if (out->size() + static_cast<size_t>(n) > limit) {
      failure = u"over the size limit";
      break;
    }
    out->insert(out->end(), chunk.begin(), chunk.begin() + n);
  }
  dropStream(ctx, stm);
  if (!failure.empty()) out->clear();
  return failure;
}

class Collector {
 public:
  explicit Collector(fz_context* ctx) : ctx_(ctx) {}

  void add(Entry entry, bool inAF) {
    if (!entry.dict) return;
    auto same = std::find_if(found_.begin(), found_.end(),
                             [&](const Found& f) { return f.dict == entry.dict; });
    if (same != found_.end()) {
      same->inAF = same->inAF || inAF;
      if (!same->key) same->key = entry.key;
      return;
    }
    if (found_.size() < kLMPdfAttachmentsMaxCount) found_.push_back({entry.dict, entry.key, inAF});
  }

  std::vector<LMPdfAttachment> read() const {
    std::vector<LMPdfAttachment> list;
    size_t budget = kLMPdfAttachmentsMaxTotalBytes;
    for (const Found& f : found_) {
      FileFacts facts = fileFacts(ctx_, f.dict);
      if (!facts.stream) continue;  // a reference to an outside file
      LMPdfAttachment a;
      a.name = text(facts.name ? facts.name : keyText(ctx_, f.key));
      a.mimeType = text(facts.mimeType);
      a.relationship = text(facts.relationship);
      a.inAF = f.inAF;
      const size_t limit = std::min(kLMPdfAttachmentMaxBytes, budget);
      a.failure = readContents(ctx_, facts.stream, limit, &a.bytes, &a.complete);
      if (a.failure == u"over the size limit" && limit < kLMPdfAttachmentMaxBytes) {
        a.failure = u"over the size limit of all attachments";
      }
      budget -= a.bytes.size();
      list.push_back(std::move(a));
    }
    return list;
  }

 private:
  struct Found {
    pdf_obj* dict;
    pdf_obj* key;
    bool inAF;
  };
  fz_context* ctx_;
  std::vector<Found> found_;
};

}  // namespace

std::vector<LMPdfAttachment> lmReadPdfAttachments(fz_context* ctx, pdf_document* doc) {
  if (!ctx || !doc) return {};
  // The lists stay kept until the contents are read: the entries point into them.
  Collector collector(ctx);
  pdf_obj* af = associatedFiles(ctx, doc);
  for (int i = 0, n = length(ctx, af); i < n; ++i) collector.add(arrayEntry(ctx, af, i), true);
  pdf_obj* tree = embeddedFilesTree(ctx, doc);
  for (int i = 0, n = length(ctx, tree); i < n; ++i) collector.add(treeEntry(ctx, tree, i), false);
  std::vector<pdf_obj*> annotationLists;
  const int pages = std::min(pageCount(ctx, doc), kMaxAnnotationPages);
  for (int p = 0; p < pages; ++p) {
    pdf_obj* annots = pageAnnotations(ctx, doc, p);
    if (!annots) continue;
    annotationLists.push_back(annots);
    for (int i = 0, n = length(ctx, annots); i < n; ++i) {
      collector.add(annotationEntry(ctx, annots, i), false);
    }
  }
  std::vector<LMPdfAttachment> list = collector.read();
  for (pdf_obj* annots : annotationLists) dropObject(ctx, annots);
  dropObject(ctx, tree);
  dropObject(ctx, af);
  return list;
}
