// Dictionary keys as LMKey against plain UTF-16 strings, on the keys of a
// real result: the sample receipt's result dictionary with the found
// elements' dictionaries (their JSON projection) and the pages' attributes,
// analysed once. Each benchmark keeps one key list per
// dictionary of that result, as the value tree does:
//
//   read_*   every key read once from the archive's key table, then copied
//            into each dictionary that uses it (what the archive reader does)
//   copy_*   a copy of all key lists (what copying a result does)
//   find_*   every key looked up by its text in its own dictionary
//
// "allocs" counts heap allocations per iteration; "bytes" the memory the
// keys of one result hold (the key objects plus what they allocate).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <new>
#include <type_traits>
#include <string>
#include <unordered_map>
#include <vector>

#include "kit/diagnostics.h"
#include "kit/key.h"
#include "service/receipt_worker.h"

namespace {
std::atomic<int64_t> gAllocations{0};
}  // namespace

// Counted allocations. g++ 12 takes the free() of the replaced operator
// delete for a mismatch once both are inlined into callers; they match.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace {

using KeyLists = std::vector<std::vector<std::u16string>>;

void collectKeys(const LMValue& value, KeyLists& lists) {
  if (const LMDictionary* d = value.asDictionary()) {
    std::vector<std::u16string>& keys = lists.emplace_back();
    for (const LMDictionaryEntry& entry : *d) keys.push_back(entry.key.str());
    for (const LMDictionaryEntry& entry : *d) collectKeys(entry.value, lists);
  } else if (const LMArray* a = value.asArray()) {
    for (const LMValue& element : *a) collectKeys(element, lists);
  } else if (const LMAttributedString* s = value.asAttributedString()) {
    for (const LMAttributeRun& run : s->runs) collectKeys(LMValue(run.attributes()), lists);
  }
}

// The key lists of the sample receipt's result, analysed once.
const KeyLists& sampleKeys() {
  static const KeyLists* lists = [] {
    lmSetLogSink([](std::string_view) {});
    std::ifstream in(std::string(LM_TESTDATA_DIR) + "/sample-receipt.pdf", std::ios::binary);
    const LMData bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LMXPCReply reply = lmPerformReceiptTask(LMDictionary{{u"data", bytes}});
    // The found elements' own dictionaries (their debugInfo above all) are
    // part of their JSON projection.
    auto* result = new KeyLists;
    if (reply.result) collectKeys(reply.result->jsonObject(), *result);
    return result;
  }();
  return *lists;
}

template <typename Key>
std::vector<std::vector<Key>> readKeys(const KeyLists& lists) {
  // The archive holds each distinct key once; the reader makes it a key
  // once and copies that key into every dictionary that uses it.
  std::unordered_map<std::u16string_view, Key> table;
  std::vector<std::vector<Key>> result;
  result.reserve(lists.size());
  for (const auto& keys : lists) {
    std::vector<Key>& out = result.emplace_back();
    out.reserve(keys.size());
    for (const std::u16string& key : keys) {
      auto it = table.find(key);
      if (it == table.end()) it = table.emplace(key, Key(key)).first;
      out.push_back(it->second);
    }
  }
  return result;
}

size_t heapBytes(const LMKey& key) {
  return key.size() > LMKey::kInlineUnits ? 8 + key.size() * 2 : 0;
}
size_t heapBytes(const std::u16string& key) {
  return key.capacity() > 7 ? (key.capacity() + 1) * 2 : 0;
}

template <typename Key>
void reportCounters(benchmark::State& state, int64_t allocationsBefore) {
  state.counters["allocs"] = static_cast<double>(gAllocations.load() - allocationsBefore) /
                             static_cast<double>(state.iterations());
  const auto kept = readKeys<Key>(sampleKeys());
  size_t bytes = 0;
  size_t count = 0;
  // A shared LMKey block is paid once for all its copies.
  std::unordered_map<std::u16string, size_t> sharedBlocks;
  for (const auto& keys : kept) {
    for (const Key& key : keys) {
      bytes += sizeof(Key);
      ++count;
      if constexpr (std::is_same_v<Key, LMKey>) {
        sharedBlocks.emplace(key.str(), heapBytes(key));
      } else {
        bytes += heapBytes(key);
      }
    }
  }
  for (const auto& [text, heap] : sharedBlocks) bytes += heap;
  state.counters["keys"] = static_cast<double>(count);
  state.counters["dicts"] = static_cast<double>(kept.size());
  state.counters["bytes"] = static_cast<double>(bytes);
}

template <typename Key>
void read(benchmark::State& state) {
  const KeyLists& lists = sampleKeys();
  const int64_t before = gAllocations.load();
  for (auto _ : state) {
    auto kept = readKeys<Key>(lists);
    benchmark::DoNotOptimize(kept);
  }
  reportCounters<Key>(state, before);
}

template <typename Key>
void copy(benchmark::State& state) {
  const auto kept = readKeys<Key>(sampleKeys());
  const int64_t before = gAllocations.load();
  for (auto _ : state) {
    auto copied = kept;
    benchmark::DoNotOptimize(copied);
  }
  reportCounters<Key>(state, before);
}

template <typename Key>
void find(benchmark::State& state) {
  const KeyLists& lists = sampleKeys();
  const auto kept = readKeys<Key>(lists);
  const int64_t before = gAllocations.load();
  for (auto _ : state) {
    size_t found = 0;
    for (size_t d = 0; d < lists.size(); ++d) {
      for (const std::u16string& wanted : lists[d]) {
        const std::u16string_view text(wanted);
        for (const Key& key : kept[d]) {
          if (key == text) {
            ++found;
            break;
          }
        }
      }
    }
    benchmark::DoNotOptimize(found);
  }
  reportCounters<Key>(state, before);
}

}  // namespace

BENCHMARK(read<LMKey>)->Name("read_LMKey");
BENCHMARK(read<std::u16string>)->Name("read_u16string");
BENCHMARK(copy<LMKey>)->Name("copy_LMKey");
BENCHMARK(copy<std::u16string>)->Name("copy_u16string");
BENCHMARK(find<LMKey>)->Name("find_LMKey");
BENCHMARK(find<std::u16string>)->Name("find_u16string");
BENCHMARK_MAIN();
