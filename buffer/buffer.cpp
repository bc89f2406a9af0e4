#include "buffer/buffer.h"

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "foundation/internal/counted_block.h"

namespace KVT {
namespace {

// A text block is malloc/realloc memory with a hidden count of the buffers that hold it.
using TextBlock = internal::CountedBlock<internal::MallocMemory>;

// Lets go of `data`, releasing the block if nobody else holds it.
void ReleaseBlock(void* data) {
  if (TextBlock::Release(data)) TextBlock::Free(data);
}

// `data` (with `old_bytes` in use, or null) resized to `new_bytes`, contents kept; null if the
// heap refuses, and `data` is then untouched. A block that other buffers hold is not moved under
// them: the caller gets a copy and lets go of the original.
void* ResizeBlock(void* data, std::size_t old_bytes, std::size_t new_bytes) {
  if (data == nullptr) return TextBlock::Allocate(new_bytes);
  if (TextBlock::Holders(data) == 1) return TextBlock::Reallocate(data, new_bytes);
  void* copy = TextBlock::Allocate(new_bytes);
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, data, old_bytes);
  ReleaseBlock(data);
  return copy;
}

template <typename T>
int TextLength(const T* text) {
  int length = 0;
  while (length < INT_MAX && text[length] != 0) ++length;
  return length;
}

// The walk of Compare and operator==: unsigned character values up to the first zero.
template <typename T>
int CompareTexts(const T* a, const T* b) {
  using Unsigned = std::make_unsigned_t<T>;
  for (;; ++a, ++b) {
    const Unsigned x = static_cast<Unsigned>(*a);
    const Unsigned y = static_cast<Unsigned>(*b);
    if (x != y) return x < y ? -1 : 1;
    if (x == 0) return 0;
  }
}

}  // namespace

template <typename T>
CBuffer<T>::CBuffer()
    : capacity(0), results(nullptr), data(nullptr), length(0), lines(kLineGrowStep) {}

template <typename T>
CBuffer<T>::CBuffer(const T* text) : CBuffer() {
  Add(text);
}

template <typename T>
CBuffer<T>::CBuffer(const CBuffer& other) : CBuffer() {
  *this = other;
}

template <typename T>
CBuffer<T>::~CBuffer() {
  Free();
  lines.RemoveAll();
}

// When the heap refuses, nothing changes and the caller finds `capacity` still too small: a
// buffer can't report, and writing on through a null or short block is no option.
template <typename T>
T* CBuffer<T>::Realloc(int size) {
  if (size <= capacity) return data;
  const int old_capacity = data != nullptr && capacity > 0 ? capacity : 0;
  const std::size_t old_bytes = data != nullptr ? old_capacity + sizeof(T) : 0;
  void* grown = ResizeBlock(data, old_bytes, static_cast<std::size_t>(size) + sizeof(T));
  if (grown == nullptr) return data;
  std::memset(static_cast<char*>(grown) + old_capacity, 0, size - old_capacity + sizeof(T));
  data = static_cast<T*>(grown);
  capacity = size;
  return data;
}

template <typename T>
void CBuffer<T>::SetSize(int size) {
  Reset();
  Realloc(size);
}

template <typename T>
void CBuffer<T>::SetLength(int length) {
  Reset();
  if (length <= INT_MAX / static_cast<int>(sizeof(T))) {
    Realloc(length * static_cast<int>(sizeof(T)));
  }
}

template <typename T>
void CBuffer<T>::Reset() {
  length = 0;
  if (data != nullptr) data[0] = 0;
  lines.Reset();
  if (results != nullptr) results->Reset();
}

template <typename T>
void CBuffer<T>::Free() {
  ReleaseBlock(data);
  data = nullptr;
  delete results;
  results = nullptr;
  length = 0;
  capacity = 0;
  lines.Reset();
}

template <typename T>
void CBuffer<T>::Add(const T* text, int count) {
  constexpr int kMaxLength = INT_MAX / static_cast<int>(sizeof(T));
  if (text == nullptr || count <= 0 || count > kMaxLength - length) return;
  const int new_length = length + count;
  const int new_bytes = new_length * static_cast<int>(sizeof(T));

  // Text that lies in this very block is found again after the block has moved.
  const auto address = reinterpret_cast<std::uintptr_t>(text);
  const auto block = reinterpret_cast<std::uintptr_t>(data);
  const bool own_text = data != nullptr && address >= block &&
                        address < block + static_cast<unsigned>(capacity) + sizeof(T);

  Realloc(new_bytes);
  if (new_bytes > capacity) return;
  const T* source =
      own_text ? reinterpret_cast<const T*>(reinterpret_cast<const char*>(data) + (address - block))
               : text;
  std::memmove(data + length, source, count * sizeof(T));
  length = new_length;
  data[length] = 0;
}

template <typename T>
void CBuffer<T>::Add(const T* text) {
  if (text != nullptr && text[0] != 0) Add(text, TextLength(text));
}

template <typename T>
void CBuffer<T>::Add(T ch) {
  Add(&ch, 1);
}

template <typename T>
CBuffer<T>& CBuffer<T>::operator+=(const T* text) {
  Add(text);
  return *this;
}

template <typename T>
CBuffer<T>& CBuffer<T>::operator+=(T ch) {
  Add(ch);
  return *this;
}

template <typename T>
CBuffer<T>& CBuffer<T>::operator=(const T* text) {
  Reset();
  Add(text);
  return *this;
}

// Copies share; see the class comment. What this buffer held before only loses its holder:
// its text stays allocated even when this was the last holder (a leak by contract), so that
// pointers into it stay good, and so do its tables.
template <typename T>
CBuffer<T>& CBuffer<T>::operator=(const CBuffer& other) {
  if (this == &other) return *this;
  TextBlock::Retain(other.data);
  TextBlock::Drop(data);

  XArray<std::uint64_t>* shared_results = nullptr;
  if (other.results != nullptr) {
    // A copy whose result array can't be had starts without one, as a buffer that never searched.
    shared_results = new (std::nothrow) XArray<std::uint64_t>(*other.results);
  }
  if (results != nullptr) {
    *results = XArray<std::uint64_t>(kResultGrowStep);  // Drops the hold on the old table only.
    delete results;
  }

  capacity = other.capacity;
  results = shared_results;
  data = other.data;
  length = other.length;
  lines = other.lines;
  return *this;
}

template <typename T>
int CBuffer<T>::operator==(const T* text) const {
  if (data == nullptr) return text == nullptr ? 1 : 0;
  if (text == nullptr) return 0;
  return CompareTexts(data, text) == 0 ? 1 : 0;
}

template <typename T>
int CBuffer<T>::Compare(const CBuffer& other) const {
  if (data == nullptr) return other.data == nullptr ? 0 : -1;
  if (other.data == nullptr) return 1;
  return CompareTexts(data, other.data);
}

template <typename T>
T* CBuffer<T>::GetBuffer() const {
  return data;
}

template <typename T>
CBuffer<T>::operator T*() const {
  return data;
}

template <typename T>
void* CBuffer<T>::Malloc(unsigned int size) {
  return std::malloc(size);
}

}  // namespace KVT

// The lines and the search keep their members in files of their own (buffer_lines.cpp,
// buffer_search.cpp), which instantiate and export those members themselves: an explicit
// instantiation of the class instantiates only the members defined where it stands. The export:
// see foundation/export.h.
namespace KVT {
template class TERN_TEMPLATE_EXPORT CBuffer<char>;
template class TERN_TEMPLATE_EXPORT CBuffer<wchar_t>;
}  // namespace KVT
