#pragma once

#include <set>
#include <string>
#include <vector>

// docs/contract.md, as the tests read it. An entry is a heading of the third level, the line with its test, and the line
// that tells how it ends:
//
//   ### Growth beyond the maximum
//   <!-- test: Contract.Growth_BeyondTheMaximum_EndsTheProcess -->
//   Ends with `Expanded account to more than maximum`.
namespace oxcontract {

struct Outcome {
  std::set<std::string> messages;  // with which the process ends
  bool hangs = false;
  bool faults = false;
  bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

struct Entry {
  std::string title;
  std::string test;
  Outcome outcome;
  std::string outcome_line;  // as it stands on the page
};

// A row of the table that leads from what is seen, a message or a symptom in plain words, to the entries.
struct IndexRow {
  std::string seen;
  std::vector<std::string> anchors;
};

struct Page {
  std::vector<Entry> entries;
  std::vector<IndexRow> index;
  std::set<std::string> unreachable;  // the messages that no call leads to

  // Reads the page that the build names; a page that can't be read has nothing on it.
  static Page read();
};

// What a reader's browser makes of a heading.
std::string anchor_of(const std::string& title);

}  // namespace oxcontract
