// Tour, search: a prepared term, a buffer that holds a text, and the lines found.
#include "examples/tour/tour.h"

#include <cstdio>
#include <cstring>

#include "TernCoreLib.h"

namespace {

// The bundled text: a few lines to search.
const char kPoem[] =
    "The Owl and the Pussy-cat went to sea\n"
    "In a beautiful pea-green boat,\n"
    "They took some honey, and plenty of money,\n"
    "Wrapped up in a five-pound note.\n"
    "The Owl looked up to the stars above,\n"
    "And sang to a small guitar,\n"
    "\"O lovely Pussy! O Pussy, my love,\n"
    "What a beautiful Pussy you are!\"\n";

bool Check(bool ok, const char* what) {
  if (!ok) std::printf("   !! unexpected: %s\n", what);
  return ok;
}

// Prints each line that holds a result, once.
void PrintLines(KVT::CBuffer<char>& buffer) {
  int previous = 0;
  for (int i = 0; i < buffer.GetResultCount(); ++i) {
    int line = 0;
    const char* text = buffer.GetResult(i, line);
    if (text == nullptr || line == previous) continue;
    previous = line;
    std::printf("  %d: %.*s\n", line, buffer.GetResultLength(i), text);
  }
}

int polls = 0;

// A stop callback: ends the search at its tenth poll.
bool StopAfterTenPolls(void*) { return ++polls >= 10; }

}  // namespace

bool TourSearch() {
  bool ok = true;
  TourHeading("Search");

  KVT::CBuffer<char> buffer;
  buffer = kPoem;
  KVT::CSearchQuery<char> query;
  query.SetTerm("pussy", 0, true);  // Prepared caseless, so it serves both kinds of search.
  std::printf("term \"%s\": %d characters, a shift table of %d entries\n", query.term,
              query.termLength, query.tableSize);

  // The long form over the buffer's own text, lines cut at LF.
  const int length = static_cast<int>(std::strlen(kPoem));
  unsigned long found = buffer.Search(buffer.GetBuffer(), length, 0, query, nullptr, nullptr, '\n');
  std::printf("case-sensitive: %lu occurrences\n", found);
  ok &= Check(found == 0, "\"pussy\" in lower case is not in the poem");

  found = buffer.Search(buffer.GetBuffer(), length, 1, query, nullptr, nullptr, '\n');
  std::printf("ignoring case: %lu occurrences, on the lines\n", found);
  PrintLines(buffer);
  ok &= Check(found == 4, "four Pussies ignoring case");

  // "Pussy-cat" counts as a whole word: the hyphen separates words.
  query.SetTerm("owl", 0, true);
  found = buffer.Search(buffer.GetBuffer(), length, 1 | 2, query, nullptr, nullptr, '\n');
  std::printf("\"owl\" as a whole word, ignoring case: %lu\n", found);
  ok &= Check(found == 2, "two owls");

  // A stop callback is polled once per alignment of the term and may end the search.
  query.SetTerm("the", 0, true);
  polls = 0;
  found = buffer.Search(buffer.GetBuffer(), length, 1, query, &StopAfterTenPolls, nullptr, '\n');
  std::printf("\"the\", stopped at the tenth poll: %lu found so far\n", found);
  const unsigned long all = buffer.Search(buffer.GetBuffer(), length, 1, query, nullptr, nullptr,
                                          '\n');
  std::printf("and without the callback: %lu\n", all);
  ok &= Check(found < all, "the callback did not stop the search");

  // Cut into lines, the text has zeros for line ends, which the short form counts.
  buffer.ToLines();
  query.SetTerm("beautiful", 0, false);
  found = buffer.Search(0, query);
  std::printf("after ToLines, the short form finds \"beautiful\" %lu times:\n", found);
  PrintLines(buffer);
  ok &= Check(found == 2, "two beautiful things");
  return ok;
}
