// CBuffer's lines and files: the members that cut a text into lines and read files by lines.
#include "buffer/buffer.h"

#include <io.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cwchar>

namespace KVT {
namespace {

int ReadUnit(FILE* stream, char*) { return std::fgetc(stream); }
std::wint_t ReadUnit(FILE* stream, wchar_t*) { return std::fgetwc(stream); }

// The next character of `stream` for Load and GetNext: CR skipped, LF given as 0. False at the
// end of input or on a read error, both of which the stream's flags tell rather than the value
// read, so that a wide unit 0xFFFF (WEOF's value) still counts as a character.
template <typename T>
bool ReadChar(FILE* stream, T* ch) {
  for (;;) {
    if (std::feof(stream) || std::ferror(stream)) return false;
    const auto unit = ReadUnit(stream, ch);
    if (std::feof(stream) || std::ferror(stream)) return false;
    if (unit == '\r') continue;
    *ch = unit == '\n' ? T(0) : static_cast<T>(unit);
    return true;
  }
}

// The length of the stream's file in bytes, or -1 if it can't be had.
long FileLength(FILE* stream) {
  const int fd = _fileno(stream);
  return fd < 0 ? -1 : _filelength(fd);
}

}  // namespace

template <typename T>
T* CBuffer<T>::AddLine(T* start, T* end) {
  *end = 0;
  lines.Add(start);
  return end + 1;
}

template <typename T>
bool CBuffer<T>::ToLines() {
  if (length <= 0 || data == nullptr || data[0] == 0) return false;
  return Split(T('\n'));
}

template <typename T>
bool CBuffer<T>::Split(T delimiter) {
  if (data == nullptr) return false;
  lines.Reset();
  T* start = data;
  T* const end = data + (length > 0 ? length : 0);
  for (T* p = data; p < end; ++p) {
    if (*p == delimiter) start = AddLine(start, p);
  }
  if (start < end) AddLine(start, end);
  return lines.count > 0;
}

template <typename T>
int CBuffer<T>::ReAllocForFile(FILE* stream) {
  if (stream == nullptr) return 0;
  const long bytes = FileLength(stream);
  if (bytes <= 0 || bytes > INT_MAX / static_cast<long>(sizeof(T))) return 0;
  const int need = static_cast<int>(bytes) * static_cast<int>(sizeof(T));
  if (need > capacity) Realloc(need);
  return need;
}

// Growth while reading is exact, as Realloc's; a block that moves takes the line table along, so
// that the entries stay good. Only the lines given out earlier by GetNext go stale.
template <typename T>
bool CBuffer<T>::AppendRead(T ch) {
  if (length >= INT_MAX / static_cast<int>(sizeof(T))) return false;
  const int need = (length + 1) * static_cast<int>(sizeof(T));
  if (need > capacity) {
    const auto old_block = reinterpret_cast<std::uintptr_t>(data);
    const auto old_end = old_block + static_cast<unsigned>(capacity) + sizeof(T);
    Realloc(need);
    if (need > capacity) return false;
    const auto new_block = reinterpret_cast<std::uintptr_t>(data);
    if (old_block != 0 && new_block != old_block) {
      for (int i = 0; i < lines.count && i < lines.capacity; ++i) {
        XArrayEntry<T*>* entry = lines.entries[i];
        if (entry == nullptr) continue;
        const auto line = reinterpret_cast<std::uintptr_t>(entry->value);
        if (line >= old_block && line < old_end) {
          entry->value = reinterpret_cast<T*>(new_block + (line - old_block));
        }
      }
    }
  }
  data[length] = ch;
  ++length;
  data[length] = 0;
  return true;
}

template <typename T>
int CBuffer<T>::Load(FILE* stream) {
  length = 0;
  if (data != nullptr) data[0] = 0;
  lines.Reset();
  if (results != nullptr) results->Reset();
  if (stream == nullptr) return 0;

  ReAllocForFile(stream);
  int start = 0;
  T ch;
  while (ReadChar(stream, &ch) && AppendRead(ch)) {
    if (ch == 0) {
      lines.Add(data + start);
      start = length;
    }
  }
  if (start < length) lines.Add(data + start);
  return lines.count;
}

template <typename T>
T* CBuffer<T>::GetNext(FILE*& stream, int index) {
  if (stream == nullptr) return lines[index];
  const int start = length;
  T ch;
  while (ReadChar(stream, &ch) && AppendRead(ch)) {
    if (ch == 0) {
      lines.Add(data + start);
      return data + start;
    }
  }
  std::fclose(stream);
  stream = nullptr;
  return nullptr;
}

// The members defined here, for both widths (buffer.cpp instantiates the rest).
#define TERN_BUFFER_LINES(T)                                        \
  template TERN_TEMPLATE_EXPORT T* CBuffer<T>::AddLine(T* start, T* end);                \
  template TERN_TEMPLATE_EXPORT bool CBuffer<T>::ToLines();                              \
  template TERN_TEMPLATE_EXPORT bool CBuffer<T>::Split(T delimiter);                     \
  template TERN_TEMPLATE_EXPORT int CBuffer<T>::ReAllocForFile(FILE* stream);            \
  template TERN_TEMPLATE_EXPORT bool CBuffer<T>::AppendRead(T ch);                       \
  template TERN_TEMPLATE_EXPORT int CBuffer<T>::Load(FILE* stream);                      \
  template TERN_TEMPLATE_EXPORT T* CBuffer<T>::GetNext(FILE*& stream, int index);
TERN_BUFFER_LINES(char)
TERN_BUFFER_LINES(wchar_t)
#undef TERN_BUFFER_LINES

}  // namespace KVT
