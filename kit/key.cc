#include "kit/key.h"

#include <new>

LMKey::Block* LMKey::share(std::u16string_view text) {
  if (text.size() > UINT32_MAX) throw std::bad_alloc();
  void* memory = ::operator new(sizeof(Block) + text.size() * sizeof(char16_t));
  Block* b = new (memory) Block(static_cast<uint32_t>(text.size()));
  std::memcpy(b->units(), text.data(), text.size() * sizeof(char16_t));
  return b;
}
