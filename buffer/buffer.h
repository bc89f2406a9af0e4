#ifndef TERNCORELIB_BUFFER_BUFFER_H_
#define TERNCORELIB_BUFFER_BUFFER_H_

#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "buffer/search_query.h"
#include "foundation/export.h"
#include "foundation/x_array.h"

namespace KVT {

// A growable, zero-terminated text of T (char, or wchar_t as one UTF-16 code unit) that can cut
// itself into lines in place and keeps the results of searches over it.
//
// Storage. `data` is one block of `capacity` bytes plus room for one terminating character;
// `capacity` counts bytes and `length` characters, so in the wide form `capacity` is twice the
// characters that fit. The character at index `length` is always 0 once a block exists; the
// text may hold further zeros before it, and `length`, not the first zero, says where the text
// ends. A block grows to exactly the size asked for (no doubling, no minimum step) and never
// shrinks: only Free and destruction give it back. Bytes that growth adds are zero. Text given
// to the buffer is always copied; it never adopts a block.
//
// Pointers into the block (GetBuffer, the line table, GetNext, the results) are good until the
// block next grows and moves.
//
// Allocation failure. Growth that the heap refuses leaves the block, `capacity` and the text as
// they were, and the append that asked for it appends nothing: a buffer never writes past its
// block and never reports. Load and GetNext take it as the end of their input.
//
// Copies. Copy construction and operator=(const CBuffer&) copy the fields as they stand: no text
// is copied, and both buffers then refer to one block, one line table and one result table. A
// hidden count of holders kept in front of the block (and, for the tables, in XArray) makes sure
// that each is released once, by the last buffer that lets go of it; any copy may be destroyed
// first. Each buffer keeps its own `length`, `capacity` and counts, and writes through to the
// shared text, except that a buffer whose block must grow while shared takes a block of its own
// (a copy of the old one) instead of moving the common block under the other holders.
// The result table is shared the same way, through a result array object of each buffer's own
// that refers to the common table.
// The assignment releases nothing that the assigned buffer held before, so pointers into its old
// text stay good; if no other copy held that text, it stays allocated for good. Assign over a
// buffer that holds no block (or that shares one) when that matters.
//
// The fields are public, as every member but two private helpers is; there are no accessors.
// Code outside the class reads them freely but must not write them: `data`, `capacity` and the
// holder count kept in front of the block belong together.
//
// No lock: a buffer, and the copies that share its block, are used by one thread at a time.
template <typename T>
class CBuffer {
 public:
  static constexpr int kLineGrowStep = 100;     // Line table slots added at a time.
  static constexpr int kResultGrowStep = 1000;  // Result table slots added at a time.

  // Empty: no block, no result table, no line table storage. Allocates nothing.
  CBuffer();
  // Empty, then the text of `text` up to its terminator. Null or empty allocates nothing.
  explicit CBuffer(const T* text);
  // Shares `other`'s block and tables, as operator= does.
  CBuffer(const CBuffer& other);
  // Lets go of the block and both tables; each is released unless a copy still shares it.
  ~CBuffer();

  // Grows the block to `size` bytes (plus the terminator's room) if that is more than
  // `capacity`, zeroing what is added, and gives `data`. A smaller, equal or negative size
  // changes nothing; Realloc(0) on a new buffer gives null and allocates nothing. `length` and
  // the tables are untouched, but the block may move, which makes line and result pointers
  // stale. On allocation failure everything stays as it was.
  T* Realloc(int size);

  // Reset, then Realloc(size): `size` is in bytes.
  void SetSize(int size);
  // Reset, then room for `length` characters: Realloc(length * sizeof(T)). The new length is 0,
  // not `length`. A count whose byte size does not fit an int grows nothing.
  void SetLength(int length);
  // Empties the text (`length` 0, first character 0), the line table and, if it exists, the
  // result table, keeping the block, `capacity` and the tables' storage for reuse.
  void Reset();
  // Gives the block back, destroys the result table and empties the text and the line table;
  // `capacity` becomes 0. The line table's storage stays for reuse, and so does the buffer: the
  // next growth allocates a new block.
  void Free();

  // Appends `count` characters of `text`, which may hold zeros. Nothing happens for a null
  // `text`, a `count` of 0 or less, or a sum whose byte size would not fit an int. `text` may
  // point into this buffer's own block: it is read after the block has grown.
  void Add(const T* text, int count);
  // Appends `text` up to its terminator. Null or empty appends nothing.
  void Add(const T* text);
  // Appends one character; 0 too, which lengthens the text but ends it for the comparisons.
  void Add(T ch);
  CBuffer& operator+=(const T* text);
  CBuffer& operator+=(T ch);

  // Reset, then Add(text). A null or empty text leaves an empty text with the block in place.
  CBuffer& operator=(const T* text);
  // See "Copies" above.
  CBuffer& operator=(const CBuffer& other);

  // 1 if the text up to its first zero equals `text`, else 0. Characters compare as unsigned
  // values, with no case folding. A buffer without a block equals only null, so a buffer that
  // never held anything does not equal an empty text; null equals no buffer that has a block.
  int operator==(const T* text) const;
  // The same for a pointer that is not const, or nullptr, which would otherwise be ambiguous with
  // the built-in comparison through operator T*.
  template <typename P, typename = std::enable_if_t<std::is_convertible_v<P, const T*>>>
  int operator==(P text) const {
    return *this == static_cast<const T*>(text);
  }
  // -1, 0 or 1 as this text, up to its first zero, sorts before, with or after `other`'s, by
  // unsigned character values. A buffer without a block sorts before every buffer with one,
  // even an empty one, and equals another without one.
  int Compare(const CBuffer& other) const;

  // `data`: null until a block exists. The caller does not free it.
  T* GetBuffer() const;
  operator T*() const;

  // A block of `size` bytes from the C runtime's malloc, for the caller to free(); null when
  // malloc gives null. The buffer never adopts it.
  static void* Malloc(unsigned int size);

  // Lines. Each operation leaves every line end in the block as a zero character and the line
  // table (`lines`) with a pointer to the first character of each line. The pointers own nothing
  // and are good while the block does not move.

  // Cuts the text at every LF (10), overwriting each with 0; text behind the last LF becomes a
  // line, a text that ends with LF gets no empty last line. CR stays in its line. Gives true if
  // there is at least one line. A buffer with an empty text, no block, or a first character 0
  // gives false and keeps the line table as it was.
  bool ToLines();
  // Cuts the text at every `delimiter` as ToLines cuts at LF. Only a buffer without a block gives
  // false with the line table kept; a text that starts with 0 is cut like any other, and an
  // empty text empties the table and gives false.
  bool Split(T delimiter);

  // Replaces the text by the lines of `stream`, read with fgetc (fgetwc in the wide form) from
  // its current position to the end in whatever mode the caller opened it. Each LF or zero
  // character ends a line and is stored as 0; CR is dropped wherever it stands; the text behind
  // the last line end becomes a line too. Gives the number of lines. Empties the result table
  // (count 0). The block is first grown to hold the whole file, so that reading allocates
  // nothing unless the file grows meanwhile; if it does, the block grows as it reads, and the
  // line table is moved along with it. A read error ends the input: the lines read so far stay.
  // A null stream empties the buffer and gives 0. The stream stays open.
  int Load(FILE* stream);
  // Grows the block to hold the whole file of `stream` (`sizeof(T)` bytes per byte of the file)
  // and gives the bytes needed, even when the block is already larger; changes nothing else. 0
  // for a null stream, a stream whose file length can't be had, and a file whose size in bytes
  // (times sizeof(T)) does not fit an int.
  int ReAllocForFile(FILE* stream);
  // With `stream` not null: reads the next line of it as Load does, appends it behind the text
  // already in the buffer and to the line table, and gives it; `index` is not read. At the end of
  // input (or a read error) it closes the stream, sets `stream` to null and gives null. A last
  // line without a line end is not delivered: its characters stay in the text and in `length`
  // but get no line entry. Reading may grow the block: the line table then moves along, but
  // lines given out before are stale; ReAllocForFile first prevents that.
  // With `stream` null: line `index` of the table, or null for an index outside it.
  T* GetNext(FILE*& stream, int index);

  // Search and results (buffer_search.cpp). A search finds the occurrences of a prepared term
  // and records for each one result, the line on which it begins: the offset of that line's
  // first character from the start of the searched text in the high 32 bits, the line number
  // (from 1) in the low 32. Results stand in text order, two occurrences on one line give two
  // equal results, and occurrences never overlap: after each one, recorded or rejected as no
  // whole word, the scan moves on by the term's length. Where in its line an occurrence stands
  // is not kept.
  //
  // flags: 1 compares ignoring case (the query must have been prepared caseless), as
  // _strnicmp / _wcsnicmp do one character at a time; 2 takes whole words only, with the start
  // and end of the text as word delimiters (see IsWordDelimeter). Other bits are ignored.
  //
  // A search that runs makes `results` (new XArray<std::uint64_t>(kResultGrowStep)) or empties
  // it first, and the table then holds its results alone; a search refused at the start leaves
  // the former results in place. Reset, Load, Free, assignment and destruction above take care
  // of the table. Result cells are reused from search to search.

  // Searches text[0 .. length - 1], with a line beginning at the start and behind each
  // `lineDelimiter`; zeros in the text are ordinary characters. Gives the number of results
  // recorded. Refused (0, former results kept) for a null `text`, a `length` below 1 and an
  // empty query. A term longer than the text gives 0 with the table emptied.
  // `stop`, if not null, is called with `stopArg` once per alignment of the term on the text, as
  // the Horspool scan defined by the query's shift table steps through them, before that
  // alignment is examined; true ends the search, keeping the results so far. Without `stop` the
  // search may examine the text in any order that records the same results.
  // `text` may be any memory: GetResult and GetResultLength read results against this buffer's
  // own text, so they mean something only when `text` is `data`.
  unsigned long Search(const T* text, int length, unsigned long flags, CSearchQuery<T>& query,
                       bool (*stop)(void*), void* stopArg, T lineDelimiter);
  // Reads the file of `file` (a Windows file handle) from its current position into the block,
  // sets `length` to the characters read (in the wide form 16-bit units in machine order, an odd
  // last byte dropped) and searches that text with LF as the line delimiter; CR and any
  // byte-order mark stay in the text. The line table is not touched. 0 with `length` and the
  // results untouched when the size can't be had, the file is empty (a buffer without a block
  // then allocates nothing), reading fails, or fewer bytes are read than the term has
  // characters; the block may then already hold file content.
  unsigned long Search(void* file, unsigned long flags, CSearchQuery<T>& query,
                       bool (*stop)(void*), void* stopArg);
  // Searches the buffer's own text with zero as the line delimiter, which fits text cut by
  // ToLines, Split or Load; uncut text is one line. 0 with the results kept for a buffer without
  // a block or with an empty text.
  unsigned long Search(unsigned long flags, CSearchQuery<T>& query);

  // The number of results of the last search; 0 before any.
  int GetResultCount();
  // The start of the line of result `index` in this buffer's text, with its number in `line`.
  // Null, and `line` untouched, for an index at or above the count, without a table, and for a
  // line start beyond `length` (a result of a search over other memory). A negative index reads
  // the table's zero default: `data`, with line 0.
  T* GetResult(int index, int& line);
  // The length of that line in characters, up to LF, CR, a zero character or `length`, whatever
  // the delimiter of the search was; 0 where GetResult gives null.
  int GetResultLength(int index);

  // 1 if the characters at `a` and `b` are equal, by value or, with `caseless`, by
  // _strnicmp / _wcsnicmp of one character (which follow the C runtime's locale); 0 if not or if
  // either pointer is null.
  static int CharEqual(const char* a, const char* b, bool caseless);
  static int CharEqual(const wchar_t* a, const wchar_t* b, bool caseless);
  // 1 for a character that separates words: below 33 (a narrow char taken as signed, so every
  // byte above 127 separates words whatever the locale says), isspace / iswspace, and anything
  // that isalnum / iswalnum refuses, the underscore included; 0 for alphanumerics.
  static int IsWordDelimeter(char ch);
  static int IsWordDelimeter(wchar_t ch);
  // Whether isprint / iswprint accepts the character at `ch` (a narrow one as its unsigned byte
  // value); false for null.
  static bool IsPrintable(const char* ch);
  static bool IsPrintable(const wchar_t* ch);

  int capacity;                     // Bytes of text storage, the terminator's room not counted.
  XArray<std::uint64_t>* results;   // The results of the last search, owned; null before one.
  T* data;                          // The text, owned; null until the first growth.
  int length;                       // Characters of text, the terminator not counted.
  XArray<T*> lines;                 // Line starts inside `data`, not owned.

 private:
  // Writes a zero at `end`, appends `start` to the line table and gives `end` + 1.
  T* AddLine(T* start, T* end);
  // Appends one character read from a stream, growing the block as Add does and moving the line
  // table along if the block moves. False if the block cannot grow.
  bool AppendRead(T ch);
};

TERN_EXTERN_TEMPLATE(CBuffer<char>)
TERN_EXTERN_TEMPLATE(CBuffer<wchar_t>)

}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_BUFFER_H_
