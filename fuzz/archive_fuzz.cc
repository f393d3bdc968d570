// Bytes through the keyed-archive decoder. Whatever decodes must encode
// again, and the encoding must decode to an equal tree.
#include <cstddef>
#include <cstdint>
#include <span>

#include "service/keyed_archive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto decoded = lxDataUnserialize(std::span<const uint8_t>(data, size));
  if (!decoded) return 0;
  const auto encoded = lxDataSerialize(*decoded);
  if (!encoded) return 0;  // e.g. a shared object of an unknown class
  const auto again = lxDataUnserialize(*encoded);
  if (!again) __builtin_trap();
  return 0;
}
