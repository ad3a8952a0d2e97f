#include <cerrno>

#include "judge.hpp"
#include "mounts.hpp"
#include "store.hpp"
#include "words.hpp"

namespace oxcheck {
namespace {

std::string mebibytes(uint64_t bytes) {
  return std::to_string((bytes + kMib - 1) / kMib) + "M";
}

std::string page_option(const Facts& facts) {
  return "pagesize=" + mebibytes(facts.memory.huge_page_bytes.value_or(kPageBytes));
}

// Mounting anew lies over what is there; a tmpfs of the right kind is only made larger, by what is in use already.
std::vector<std::string> make_suitable(const Facts& facts, const Directory& directory, bool explicit_pages,
                                       uint64_t max_bytes) {
  std::vector<std::string> commands;
  const std::string path = quoted(directory.path);
  if (directory.error == EACCES) {
    return {"chmod 1777 " + path};
  }
  if (directory.error == ENOENT) {
    commands.push_back("mkdir -p " + path);
  }
  if (explicit_pages) {
    commands.push_back("mount -t hugetlbfs -o " + page_option(facts) + ",mode=1777 hugetlbfs " + path);
  } else if (directory.error == 0 && directory.type == "tmpfs") {
    const Mount* const mount = mount_of(facts.mounts, directory.path);
    const uint64_t in_use = directory.total - directory.available;
    commands.push_back("mount -o remount,size=" + mebibytes(max_bytes + in_use) + " " +
                       (mount == nullptr ? path : quoted(mount->point)));
  } else {
    commands.push_back("mount -t tmpfs -o size=" + mebibytes(max_bytes) + ",mode=1777 tmpfs " + path);
  }
  return commands;
}

std::string described(const Directory& directory) {
  if (directory.error != 0) {
    return directory.path + ": " + error_text(directory.error);
  }
  const std::string room = directory.total == kUnlimited
                               ? "no size limit"
                               : in_words(directory.available) + " available of " + in_words(directory.total);
  return directory.path + ": " + directory.type + ", " + room;
}

const Directory* first_candidate(const Facts& facts, const Heap& heap, bool explicit_pages) {
  const std::string path = heap.path.value_or(explicit_pages ? "/dev/hugepages" : "/dev/shm");
  for (const Directory& directory : facts.directories) {
    if (directory.path == path) {
      return &directory;
    }
  }
  return nullptr;
}

void judge_none(const Facts& facts, const Heap& heap, const Store& store, Finding& finding) {
  const bool explicit_pages = takes_explicit_pages(facts, heap);
  finding.state = State::kProblem;
  finding.found = "none that the library would take";
  for (const std::string& reason : store.refused) {
    finding.found += "; " + reason;
  }
  finding.meaning = "Initialization fails.";
  if (heap.pages == Pages::kExplicit && !explicit_pages) {
    finding.meaning +=
        " The pool of huge pages is too small for the initial memory, so small pages are tried, which "
        "need tmpfs: see the pool first.";
    return;
  }
  for (const Directory& directory : facts.directories) {
    if (!heap.path && why_unsuitable(directory, explicit_pages, heap.max_bytes).empty()) {
      finding.meaning += " " + directory.path + " would do: name it as the path for the backing file.";
    }
  }
  if (!heap.path && !explicit_pages && !facts.container.empty()) {
    finding.meaning +=
        " For a container, the size of /dev/shm is given when it is started, for example with "
        "--shm-size=" +
        mebibytes(heap.max_bytes) + ".";
  }
  if (const Directory* const directory = first_candidate(facts, heap, explicit_pages)) {
    finding.commands = make_suitable(facts, *directory, explicit_pages, heap.max_bytes);
  }
}

void judge_directory(const Facts& facts, const Heap& heap, const Directory& directory, Finding& finding) {
  const bool explicit_pages = takes_explicit_pages(facts, heap);
  finding.found = "a file in " + described(directory);
  finding.meaning = "The whole heap fits.";
  if (directory.total != kUnlimited && directory.available == 0) {
    finding.state = State::kProblem;
    finding.meaning =
        "A full file system looks as if it had no limit, so the library takes it, and then can't commit "
        "anything.";
    finding.commands = make_suitable(facts, directory, explicit_pages, heap.max_bytes);
    return;
  }
  const uint64_t page = facts.memory.huge_page_bytes.value_or(kPageBytes);
  if (explicit_pages && directory.block_bytes != 0 && directory.block_bytes != page) {
    finding.state = State::kProblem;
    finding.meaning = "Its pages are of " + in_words(directory.block_bytes) +
                      ", but the library commits by the system's "
                      "usual huge page of " +
                      in_words(page) + ": committing fails.";
    finding.commands = make_suitable(facts, directory, explicit_pages, heap.max_bytes);
  }
}

}  // namespace

Finding judge_backing_store(const Facts& facts, const Heap& heap) {
  Finding finding{"backing_store", "backing store", State::kOk, "", "", {}, {}};
  const Store store = choose_store(facts, heap);
  switch (store.kind) {
    case Store::Kind::kNone:
      judge_none(facts, heap, store, finding);
      break;
    case Store::Kind::kMemoryFile:
      finding.found = "an unnamed memory file (memfd)";
      finding.meaning = "It has no size limit, and needs no mount: how large /dev/shm is does not matter.";
      break;
    case Store::Kind::kDirectory:
      judge_directory(facts, heap, *store.directory, finding);
      for (const std::string& reason : store.refused) {
        finding.details.push_back("passed over: " + reason);
      }
      break;
  }
  for (const Directory& directory : facts.directories) {
    finding.details.push_back(described(directory));
  }
  return finding;
}

}  // namespace oxcheck
