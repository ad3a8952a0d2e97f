#pragma once

// An inverted index of real text: for each word the documents that it stands in. Each thread reads its documents into a
// map of its own; the maps are merged, and answer queries. Strings, growing arrays and growing hash tables, and a new
// string for each word of the text, most of which are garbage at once.

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "mini_runtime/object.hpp"
#include "progress.hpp"
#include "team.hpp"

namespace workloads {

using mini::Object;

// A document is a file, or a part of a longer one that ends with a line.
using Corpus = std::vector<std::string>;

struct IndexResult {
  uint64_t documents = 0;
  uint64_t words = 0;
  uint64_t postings = 0;
  uint64_t fingerprint = 0;         // of all words and their documents, whatever their order
  std::vector<uint64_t> answers{};  // to each query, its documents folded into a number
  bool operator==(const IndexResult&) const = default;
};

// ---- Text

inline Corpus read_corpus(const std::vector<std::string>& paths) {
  constexpr size_t kDocument = 8192;
  Corpus corpus;
  const auto read = [&](const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
      throw std::system_error(errno, std::generic_category(), path.string());
    }
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (text.find('\0') != std::string::npos) {
      return;  // no text
    }
    for (size_t begin = 0, end = 0; begin < text.size(); begin = end) {
      end = std::min(text.find('\n', begin + kDocument), text.size() - 1) + 1;
      corpus.push_back(text.substr(begin, end - begin));
    }
  };
  for (const std::string& path : paths) {
    if (!std::filesystem::is_directory(path)) {
      read(path);
      continue;
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
      if (entry.is_regular_file()) {
        files.push_back(entry.path());
      }
    }
    std::sort(files.begin(), files.end());
    std::for_each(files.begin(), files.end(), read);
  }
  return corpus;
}

inline bool is_of_word(char letter) {
  return std::isalnum(static_cast<unsigned char>(letter)) != 0;
}

// The next word at or behind `at`, which moves behind it; empty at the end.
inline std::string_view next_word(std::string_view text, size_t& at) {
  while (at < text.size() && !is_of_word(text[at])) {
    ++at;
  }
  const size_t begin = at;
  while (at < text.size() && is_of_word(text[at])) {
    ++at;
  }
  return text.substr(begin, at - begin);
}

inline std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](char letter) { return static_cast<char>(std::tolower(static_cast<unsigned char>(letter))); });
  return result;
}

inline uint64_t hash_of(std::string_view word) {
  return std::hash<std::string_view>{}(word);
}

inline uint64_t fold(const uint32_t* documents, uint64_t count) {
  uint64_t result = count;
  for (uint64_t i = 0; i < count; ++i) {
    result = result * 0x9e3779b97f4a7c15 + documents[i];
  }
  return result;
}

// The first two words of documents here and there.
inline std::vector<std::pair<std::string, std::string>> queries_for(const Corpus& corpus) {
  constexpr size_t kQueries = 1000;
  std::vector<std::pair<std::string, std::string>> queries;
  for (size_t i = 0; i < std::min(kQueries, corpus.size()); ++i) {
    const std::string& text = corpus[i * 7919 % corpus.size()];
    size_t at = 0;
    const std::string first = lower(next_word(text, at));
    queries.emplace_back(first, lower(next_word(text, at)));
  }
  return queries;
}

// ---- The index, made of objects
//
//   map        { table }             words: how many
//   table      { entry, ... }        by hash
//   entry      { word, documents, next entry of the same place }    hash, count of documents
//   documents  numbers, with room for more

enum MapSlot : uint32_t { kTable, kMapSlots };
enum EntrySlot : uint32_t { kWord, kDocuments, kNext, kEntrySlots };

struct EntryData {
  uint64_t hash;
  uint64_t count;
};

inline EntryData& data_of(Object* entry) {
  return *entry->raw_as<EntryData>();
}
inline uint64_t& words_of(Object* map) {
  return *map->raw_as<uint64_t>();
}
inline const uint32_t* documents_of(Object* entry) {
  return (*entry)[kDocuments]->template raw_as<uint32_t>();
}

template <typename Thread>
class Index {
 public:
  using Root = typename Thread::Root;

  // An index is whatever map the root holds.
  Index(Thread& thread, Object* map) : _thread(thread), _map(thread, map) {}

  static Object* new_map(Thread& thread) {
    constexpr uint32_t kFirstTable = 256;
    const Root map(thread, thread.allocate(kMapSlots, sizeof(uint64_t)));
    Object* const table = thread.allocate(kFirstTable, 0);
    map[kTable] = table;
    return map;
  }

  void read(uint32_t document, const std::string& text) {
    const Root copy(_thread, new_string(lower(text)));
    size_t at = 0;
    for (std::string_view word; !(word = next_word(copy->text(), at)).empty();) {
      Root string(_thread, new_string(std::string(word)));
      const Root entry(_thread, entry_for(string));
      add(entry, document);
    }
    _thread.discard(copy);
  }

  // Takes over all that another index has.
  void merge(Object* other) {
    const Root table(_thread, (*other)[kTable]);
    for (uint32_t place = 0; place < table->references(); ++place) {
      Root from(_thread, table[place]);
      while (from != nullptr) {
        Root word(_thread, from[kWord]);
        const Root to(_thread, entry_for(word));
        merge_documents(to, from);
        Object* const next = from[kNext];
        _thread.discard(from[kDocuments]);
        _thread.discard(from);
        from = next;
      }
    }
    _thread.discard(table);
    _thread.discard(other);
  }

  uint64_t answer(const std::string& left, const std::string& right) {
    Object* const first = find(left, hash_of(left));
    Object* const second = find(right, hash_of(right));
    if (first == nullptr || second == nullptr) {
      return fold(nullptr, 0);
    }
    const Root one(_thread, first);
    const Root other(_thread, second);
    Object* const result = _thread.allocate(0, std::min(data_of(one).count, data_of(other).count) * sizeof(uint32_t));
    uint32_t* const begin = result->template raw_as<uint32_t>();
    uint32_t* const end = std::set_intersection(documents_of(one), documents_of(one) + data_of(one).count,
                                                documents_of(other), documents_of(other) + data_of(other).count, begin);
    const uint64_t folded = fold(begin, static_cast<uint64_t>(end - begin));
    _thread.discard(result);
    return folded;
  }

  // visit(entry), which may discard it.
  template <typename Visit>
  void for_each_entry(Visit visit) {
    Object* const table = _map[kTable];
    for (uint32_t place = 0; place < table->references(); ++place) {
      for (Object *entry = (*table)[place], *next = nullptr; entry != nullptr; entry = next) {
        next = (*entry)[kNext];
        visit(entry);
      }
    }
  }

  void discard() {
    for_each_entry([this](Object* entry) {
      _thread.discard((*entry)[kWord]);
      _thread.discard((*entry)[kDocuments]);
      _thread.discard(entry);
    });
    _thread.discard(_map[kTable]);
    _thread.discard(_map);
  }

 private:
  Object* new_string(const std::string& text) {
    Object* const string = _thread.allocate(0, text.size());
    std::memcpy(string->raw(), text.data(), text.size());
    return string;
  }

  Object* find(std::string_view word, uint64_t hash) const {
    Object* const table = _map[kTable];
    Object* entry = (*table)[hash % table->references()];
    while (entry != nullptr && (data_of(entry).hash != hash || (*entry)[kWord]->text() != word)) {
      entry = (*entry)[kNext];
    }
    return entry;
  }

  // The entry of a word, a new one if it is the first time. The string is the index's from now on.
  Object* entry_for(Root& word) {
    const uint64_t hash = hash_of(word->text());
    if (Object* const known = find(word->text(), hash)) {
      _thread.discard(word);
      return known;
    }
    if (words_of(_map) == _map[kTable]->references()) {
      enlarge();
    }
    Object* const entry = _thread.allocate(kEntrySlots, sizeof(EntryData));
    Object* const table = _map[kTable];
    Object*& first = (*table)[hash % table->references()];
    (*entry)[kWord] = word;
    (*entry)[kNext] = first;
    data_of(entry).hash = hash;
    first = entry;
    ++words_of(_map);
    return entry;
  }

  void enlarge() {
    Object* const larger = _thread.allocate(2 * _map[kTable]->references(), 0);
    for_each_entry([&](Object* entry) {
      Object*& first = (*larger)[data_of(entry).hash % larger->references()];
      (*entry)[kNext] = first;
      first = entry;
    });
    _thread.discard(_map[kTable]);
    _map[kTable] = larger;
  }

  // Documents come in rising order, each as often as the word stands in it.
  void add(const Root& entry, uint32_t document) {
    const uint64_t count = data_of(entry).count;
    if (count > 0 && documents_of(entry)[count - 1] == document) {
      return;
    }
    if (entry[kDocuments] == nullptr || count == entry[kDocuments]->raw_bytes() / sizeof(uint32_t)) {
      Object* const larger = _thread.allocate(0, std::max<uint64_t>(2 * count, 2) * sizeof(uint32_t));
      if (count > 0) {
        std::memcpy(larger->raw(), documents_of(entry), count * sizeof(uint32_t));
        _thread.discard(entry[kDocuments]);
      }
      entry[kDocuments] = larger;
    }
    entry[kDocuments]->template raw_as<uint32_t>()[count] = document;
    ++data_of(entry).count;
  }

  void merge_documents(const Root& to, const Root& from) {
    const uint64_t count = data_of(to).count + data_of(from).count;
    Object* const merged = _thread.allocate(0, count * sizeof(uint32_t));
    const uint32_t* const first = data_of(to).count == 0 ? nullptr : documents_of(to);
    std::merge(first, first + data_of(to).count, documents_of(from), documents_of(from) + data_of(from).count,
               merged->template raw_as<uint32_t>());
    if (first != nullptr) {
      _thread.discard(to[kDocuments]);
    }
    to[kDocuments] = merged;
    data_of(to).count = count;
  }

  Thread& _thread;
  Root _map;
};

template <typename World>
IndexResult run_index(World& world, const Corpus& corpus, unsigned threads) {
  Progress progress("index", static_cast<double>(corpus.size()));
  IndexResult result{.documents = corpus.size()};
  world.with_thread([&](auto& thread) {
    using Thread = std::remove_reference_t<decltype(thread)>;
    const typename Thread::Root maps(thread, thread.allocate(threads, 0));
    std::atomic<uint32_t> next = 0;
    thread.wait_for([&] {
      run_team(world, threads, [&](auto& member, unsigned number) {
        Object* const map = Index<Thread>::new_map(member);
        maps[number] = map;
        Index<Thread> index(member, map);
        for (uint32_t document = 0; (document = next++) < corpus.size();) {
          index.read(document, corpus[document]);
          progress.add(1);
        }
      });
    });
    Index<Thread> index(thread, maps[0]);
    for (uint32_t other = 1; other < threads; ++other) {
      index.merge(maps[other]);
      maps[other] = nullptr;
    }
    for (const auto& [left, right] : queries_for(corpus)) {
      result.answers.push_back(index.answer(left, right));
    }
    index.for_each_entry([&](Object* entry) {
      ++result.words;
      result.postings += data_of(entry).count;
      result.fingerprint += data_of(entry).hash ^ fold(documents_of(entry), data_of(entry).count);
    });
    index.discard();
    thread.discard(maps);
  });
  return result;
}

// The same, in the plain way.
inline IndexResult plain_index(const Corpus& corpus) {
  std::unordered_map<std::string, std::vector<uint32_t>> index;
  for (uint32_t document = 0; document < corpus.size(); ++document) {
    const std::string text = lower(corpus[document]);
    size_t at = 0;
    for (std::string_view word; !(word = next_word(text, at)).empty();) {
      std::vector<uint32_t>& documents = index[std::string(word)];
      if (documents.empty() || documents.back() != document) {
        documents.push_back(document);
      }
    }
  }
  IndexResult result{.documents = corpus.size(), .words = index.size()};
  for (const auto& [word, documents] : index) {
    result.postings += documents.size();
    result.fingerprint += hash_of(word) ^ fold(documents.data(), documents.size());
  }
  for (const auto& [left, right] : queries_for(corpus)) {
    std::vector<uint32_t> both;
    if (index.contains(left) && index.contains(right)) {
      std::set_intersection(index[left].begin(), index[left].end(), index[right].begin(), index[right].end(),
                            std::back_inserter(both));
    }
    result.answers.push_back(fold(both.data(), both.size()));
  }
  return result;
}

}  // namespace workloads
