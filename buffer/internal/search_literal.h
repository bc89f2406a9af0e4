#ifndef TERNCORELIB_BUFFER_INTERNAL_SEARCH_LITERAL_H_
#define TERNCORELIB_BUFFER_INTERNAL_SEARCH_LITERAL_H_

// The search's defining scans (search_literal.cpp), which follow the query's shift table
// alignment by alignment. Not part of the installed interface.

#include <cstdint>

#include "buffer/search_query.h"
#include "buffer/internal/search_scan.h"

namespace KVT {
namespace internal {

// The defining scan. The term covers text[pos .. pos + m - 1] (the alignment at pos). At each
// alignment: poll `stop` (if not null); compare the last place, then the leading places in
// rising order, by value or, with `caseless`, by CharEqual; on an occurrence record it (unless
// whole words are asked for and it is none) and move by m; otherwise move by the shift of the
// character under the last place, or by m if its base value is outside the table. Ends when the
// term would pass the end of the text, or when `stop` says so. Requires 0 < m <= n.
template <typename T>
std::uint32_t HorspoolScan(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                           bool caseless, bool whole_words, bool (*stop)(void*), void* stop_arg,
                           LineCounter<T>& lines, ResultBatch& out);

// The defining scan for a caseless search without a stop callback: the same alignments, with the
// C runtime's answers cached (the comparison is a pure function during one search, so caching
// and the order of the comparisons change nothing). Results at positions below `emit_from` are
// neither recorded nor counted: a route that gives up (the wide caseless guard) has recorded
// those already, with `lines`, which carries on here.
template <typename T>
std::uint32_t CaselessScan(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                           bool whole_words, LineCounter<T>& lines, std::uint32_t emit_from,
                           ResultBatch& out);

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_INTERNAL_SEARCH_LITERAL_H_
