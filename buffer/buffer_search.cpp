// CBuffer's search and its results, over the scan of search_scan.cpp.
#include "buffer/buffer.h"

#include <climits>
#include <new>

#include "buffer/internal/search_chars.h"
#include "buffer/internal/search_scan.h"
#include "foundation/win.h"

namespace KVT {
namespace {

// Appends the scan's results to the buffer's table.
//
// Left open by the contract: a result that cannot be stored. Here the search goes on, and the
// result is dropped: a table that cannot grow refuses it (Add gives -1), and a slot whose record
// cannot be allocated is given back (the next Add tries that slot again), so that the table never
// holds a cell without a result. Search returns the count of the table, which is then below the
// number of occurrences; with memory to spare the two are equal.
class TableSink final : public internal::ResultSink {
 public:
  explicit TableSink(XArray<std::uint64_t>* results) : results_(results) {}
  void Put(const std::uint64_t* results, std::uint32_t count) override {
    for (std::uint32_t i = 0; i < count; ++i) {
      const int index = results_->Add(results[i]);
      // A result is never 0 (lines count from 1), and a slot without a record reads as 0.
      if (index >= 0 && (*results_)[index] != results[i]) results_->count = index;
    }
  }

 private:
  XArray<std::uint64_t>* results_;
};

// The line start and line number of a stored result, or false for an index outside the table.
// A negative index reads the table's default value, 0: offset 0, line 0.
bool ReadResult(const XArray<std::uint64_t>* results, int index, std::uint32_t* offset,
                std::uint32_t* line) {
  if (results == nullptr || index >= results->count) return false;
  internal::UnpackResult((*results)[index], offset, line);
  return true;
}

}  // namespace

template <typename T>
unsigned long CBuffer<T>::Search(const T* text, int length, unsigned long flags,
                                 CSearchQuery<T>& query, bool (*stop)(void*), void* stopArg,
                                 T lineDelimiter) {
  // Refused: the results of an earlier search stay.
  if (text == nullptr || length <= 0 || query.termLength <= 0 || query.term == nullptr ||
      query.shiftTable == nullptr) {
    return 0;
  }
  if (results == nullptr) {
    // Left open by the contract: a table that cannot be made. `results` stays null, as for a
    // buffer that never searched, and the search records nothing and gives 0.
    results = new (std::nothrow) XArray<std::uint64_t>(kResultGrowStep);
    if (results == nullptr) return 0;
  } else {
    results->Reset();
  }
  TableSink sink(results);
  internal::ScanText(text, length, query, flags, stop, stopArg, lineDelimiter, sink);
  return static_cast<unsigned long>(results->count);
}

template <typename T>
unsigned long CBuffer<T>::Search(void* file, unsigned long flags, CSearchQuery<T>& query,
                                 bool (*stop)(void*), void* stopArg) {
  DWORD size_high = 0;
  const DWORD size = ::GetFileSize(static_cast<HANDLE>(file), &size_high);
  if (size == INVALID_FILE_SIZE && ::GetLastError() != NO_ERROR) return 0;
  // Left open by the contract: a file whose size does not fit `capacity` (an int of bytes), one
  // of 4 GiB or more included, is not read at all and gives 0, with the buffer unchanged.
  if (size_high != 0 || size > static_cast<DWORD>(INT_MAX)) return 0;

  Realloc(static_cast<int>(size));
  // Null for an empty file in a buffer without a block; a block too small if growth failed.
  if (data == nullptr || capacity < static_cast<int>(size)) return 0;
  DWORD read = 0;
  if (!::ReadFile(static_cast<HANDLE>(file), data, size, &read, nullptr)) return 0;
  if (read > size) return 0;  // Never more than asked for; kept for the block's sake.
  // The term's length in characters against bytes read, in the wide form too.
  if (read < static_cast<DWORD>(query.termLength)) return 0;

  length = static_cast<int>(read / sizeof(T));  // In the wide form an odd last byte is dropped.
  data[length] = 0;
  return Search(data, length, flags, query, stop, stopArg, static_cast<T>('\n'));
}

template <typename T>
unsigned long CBuffer<T>::Search(unsigned long flags, CSearchQuery<T>& query) {
  if (data == nullptr || length < 1) return 0;
  return Search(data, length, flags, query, nullptr, nullptr, static_cast<T>(0));
}

template <typename T>
int CBuffer<T>::GetResultCount() {
  return results != nullptr ? results->count : 0;
}

template <typename T>
T* CBuffer<T>::GetResult(int index, int& line) {
  std::uint32_t offset = 0;
  std::uint32_t number = 0;
  if (!ReadResult(results, index, &offset, &number)) return nullptr;
  // A line start outside the text (results of a search over other memory) has no address here.
  if (data == nullptr || offset > static_cast<std::uint32_t>(length)) return nullptr;
  line = static_cast<int>(number);
  return data + offset;
}

template <typename T>
int CBuffer<T>::GetResultLength(int index) {
  std::uint32_t offset = 0;
  std::uint32_t number = 0;
  if (!ReadResult(results, index, &offset, &number) || data == nullptr) return 0;
  int end = static_cast<int>(offset);
  if (offset >= static_cast<std::uint32_t>(length)) return 0;
  while (end < length && data[end] != '\n' && data[end] != '\r' && data[end] != 0) ++end;
  return end - static_cast<int>(offset);
}

template <typename T>
int CBuffer<T>::CharEqual(const char* a, const char* b, bool caseless) {
  return internal::CharEqual(a, b, caseless);
}

template <typename T>
int CBuffer<T>::CharEqual(const wchar_t* a, const wchar_t* b, bool caseless) {
  return internal::CharEqual(a, b, caseless);
}

template <typename T>
int CBuffer<T>::IsWordDelimeter(char ch) {
  return internal::IsWordDelimeter(ch);
}

template <typename T>
int CBuffer<T>::IsWordDelimeter(wchar_t ch) {
  return internal::IsWordDelimeter(ch);
}

template <typename T>
bool CBuffer<T>::IsPrintable(const char* ch) {
  return internal::IsPrintable(ch);
}

template <typename T>
bool CBuffer<T>::IsPrintable(const wchar_t* ch) {
  return internal::IsPrintable(ch);
}

// The members defined here, for both widths (buffer.cpp instantiates the rest).
#define TERN_BUFFER_SEARCH(T)                                                                      \
  template TERN_TEMPLATE_EXPORT unsigned long CBuffer<T>::Search(                                  \
      const T*, int, unsigned long, CSearchQuery<T>&, bool (*)(void*), void*, T);                  \
  template TERN_TEMPLATE_EXPORT unsigned long CBuffer<T>::Search(                                  \
      void*, unsigned long, CSearchQuery<T>&, bool (*)(void*), void*);                             \
  template TERN_TEMPLATE_EXPORT unsigned long CBuffer<T>::Search(unsigned long, CSearchQuery<T>&); \
  template TERN_TEMPLATE_EXPORT int CBuffer<T>::GetResultCount();                                  \
  template TERN_TEMPLATE_EXPORT T* CBuffer<T>::GetResult(int, int&);                               \
  template TERN_TEMPLATE_EXPORT int CBuffer<T>::GetResultLength(int);                              \
  template TERN_TEMPLATE_EXPORT int CBuffer<T>::CharEqual(const char*, const char*, bool);         \
  template TERN_TEMPLATE_EXPORT int CBuffer<T>::CharEqual(const wchar_t*, const wchar_t*, bool);   \
  template TERN_TEMPLATE_EXPORT int CBuffer<T>::IsWordDelimeter(char);                             \
  template TERN_TEMPLATE_EXPORT int CBuffer<T>::IsWordDelimeter(wchar_t);                          \
  template TERN_TEMPLATE_EXPORT bool CBuffer<T>::IsPrintable(const char*);                         \
  template TERN_TEMPLATE_EXPORT bool CBuffer<T>::IsPrintable(const wchar_t*);
TERN_BUFFER_SEARCH(char)
TERN_BUFFER_SEARCH(wchar_t)
#undef TERN_BUFFER_SEARCH

}  // namespace KVT
